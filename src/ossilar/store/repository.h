// The store of a wiki: rows, chunks with their passages, digests, state. The operations are named by what
// they mean to a wiki, and nothing here depends on a database, so that everything above this room can be
// tested with another store or with a wrapper that fails on demand (forwarding_store.h). store/sqlite
// and store/postgresql implement it.
//
// Three interfaces, from narrow to wide: Repository is what the save pipeline (agent_save) writes through;
// WikiStore is what one Wiki (host/wiki.h) owns and all its threads share; StoreTransaction is a WikiStore
// whose writes are committed together.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/error.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/snapshot_map.h"

namespace ossilar::store {

// The store cannot do what was asked: a full disk, a damaged file, a database of another program. The message
// names the file, what was attempted and, where that is known, what to do.
class StorageError : public utils::Error {
 public:
  explicit StorageError(const std::string& message, bool damaged = false,
                        utils::Place place = utils::Place::current())
      : Error(message, place), damaged_(damaged) {}
  // Whether the stored data is unreadable: trying again is useless, rebuilding the database helps.
  bool damaged() const { return damaged_; }

 private:
  bool damaged_;
};

// Stored rows by page id. A row has the keys `page_id`, `title` and the names of the fields of PageFields, in
// this order. A process keeps all rows in memory, so they are made small: `source_files`, `source_hashes`,
// `related_pages` and `citations` are JSON text, as `build_cache` is; `symbols` is left out, and so are
// `prose`, `sections`, `diagrams` and `versions` of a `build_cache` that is a JSON object.
using StoredRows = utils::SnapshotMap<Map>;

// Digests by page id.
using PageDigests = utils::SnapshotMap<Map>;

// What a save stores of a page, beside its title. Every field has a default, so that a call names only those
// that it sets. Their order is part of the interface.
struct PageFields {
  std::string description = {};
  std::string importance = {};
  int level = 0;
  std::string parent_section = {};
  std::string rel_path = {};
  std::vector<std::string> source_files = {};
  std::map<std::string, std::string> source_hashes = {};  // file to hash
  std::vector<Map> symbols = {};
  std::vector<std::string> related_pages = {};
  std::vector<Map> citations = {};
  std::string content_hash = {};
  std::string model = {};
  std::string status = {};
  std::string summary = {};
  std::string build_cache = {};  // JSON text
  std::string page_type = {};

  bool operator==(const PageFields&) const = default;
};

// What is known of a branch's wiki as a whole, as of its last save.
struct WikiStateFields {
  std::string last_built_at = {};  // ISO 8601
  std::string last_commit = {};
  std::int64_t changed_since_build = 0;
  std::string model = {};  // names the last writer
  std::int64_t page_count = 0;
  std::string manifest_hash = {};

  bool operator==(const WikiStateFields&) const = default;
};

// What the save pipeline needs of a store. A write is on disk when its call returns, or, within a transaction
// (see WikiStore::begin()), when the transaction is committed. A write that throws stored nothing, unless its
// commit itself failed; the message then says that the outcome is unknown.
//
// Thread-safety: every member may be called from any thread. Errors: StorageError.
class Repository {
 public:
  Repository() = default;
  Repository(const Repository&) = delete;
  Repository& operator=(const Repository&) = delete;
  virtual ~Repository() = default;

  // Inserts or updates the row of (branch, page_id) and gives its key, which an update keeps. Removes the
  // page's stale mark: a page that was just saved is up to date.
  virtual std::int64_t upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                        const std::string& title, const PageFields& fields) = 0;

  // Committed but not synced, to spare a save one sync: after power loss the state may be older than the
  // rows. Whatever is synced next puts it on disk too.
  virtual void upsert_wiki_state(const std::string& branch, const WikiStateFields& fields) = 0;

  // The branch's rows as stored now, those of other processes included. Reads only what changed since the
  // last call, so that each draft can ask. The result is a snapshot that never changes.
  virtual StoredRows get_wiki_pages(const std::string& branch) = 0;
};

// Passages are named by the SHA-256 of their text and stored once, however many pages hold them. The store
// does not compute the hash; callers do.
using PassageHashes = std::set<std::string, std::less<>>;
using Vector = std::vector<float>;

// Those passages of one page that other pages hold too. A caller need not embed those that have a vector.
struct SharedPassages {
  PassageHashes embedded;  // a subset of `all`: those with a vector of the model that was asked about
  PassageHashes all;
};

// The keys of a chunk record: a passage at its place in a page. `kEmbedding` is a list of numbers, or
// embedding_form() of them, or null for a passage whose vector is stored already.
namespace chunk_key {
inline constexpr const char* kPosition = "position";  // 0, 1, ... in the order of the page
inline constexpr const char* kSection = "section";    // the heading it stands under, "" above the first
inline constexpr const char* kText = "text";
inline constexpr const char* kHash = "hash";
inline constexpr const char* kModel = "model";          // Embedder::model()
inline constexpr const char* kCitations = "citations";  // those that occur in the passage
inline constexpr const char* kEmbedding = "embedding";
}  // namespace chunk_key

// The vector as one binary value, in the form in which it is stored. As a list, each of its numbers would be
// a JSON value of its own.
Map embedding_form(const Vector& vector);

struct PassageText {
  std::string hash;
  std::string text;
};

// Which passages a search considers. "" means any.
struct PassageFilter {
  std::string page_type = {};
  // A source file or a folder, without a slash at its end. Matches passages that cite it or a file below it,
  // and all passages of pages that have such a file among their sources.
  std::string path = {};
};

// A passage that a search found, with one place at which it occurs.
struct FoundPassage {
  std::string page_id = {};
  std::string title = {};
  std::string page_type = {};
  std::string rel_path = {};
  std::string section = {};
  std::string text = {};
  std::string hash = {};
  Map citations = {};  // as in a chunk record
  double score = 0;    // higher is better; those of match_words() and of nearest() cannot be compared
};

// The whole of a page's row, with what StoredRows leave out.
struct StoredPage {
  std::string title = {};
  PageFields fields = {};

  bool operator==(const StoredPage&) const = default;
};

// What became of a page at one moment: the text that its file had from then on.
//
// Of a stored page the newest kept version has the text of the page file that its row describes (the row's
// `content_hash` is that text's), so any machine can make the file again from the store.
struct PageVersion {
  std::int64_t number = 0;   // 1, 2, ... in the order of a page's versions; given by the store
  std::string version = {};  // the name of the text, as sessions know it (pages/page_version.h)
  std::string at = {};       // ISO 8601
  std::string commit = {};   // of the repository, "" outside git
  std::string client = {};   // the program that asked for it, "" if nobody knows
  std::string action = {};   // what was done; a word for people, opaque to the store
  std::string text = {};     // of the whole page file; "" for a page that was removed

  bool operator==(const PageVersion&) const = default;
};

// Says that somebody is at work on a page until a moment, so that others take another one. A claim is advice:
// no write of a page asks for it.
struct PageClaim {
  std::string page_id = {};
  std::string holder = {};  // names the session that holds it; opaque to the store
  std::string client = {};  // the session's program, "" if nobody knows
  std::int64_t until = 0;   // seconds since 1970; from then on nobody holds it
};

class StoreTransaction;

// Everything that is stored of a wiki. Owned by Wiki (host/wiki.h); check/ opens one of its own to look for
// damage.
//
// Thread-safety and errors: as Repository. Text that is not UTF-8 is refused with StorageError.
class WikiStore : public Repository {
 public:
  // Begins a transaction. What is written through the result becomes visible and durable at once, by its
  // commit(); without one, its destructor takes everything back. From here to its end all other writers wait,
  // those of other processes too, so hold it briefly and write through nothing else: a thread that writes
  // through the store itself would wait for its own transaction. `attempt` is for the message of a failed
  // commit: "store the page a".
  virtual std::unique_ptr<StoreTransaction> begin(const std::string& attempt) = 0;

  // Reads everything and describes the first damage found; none when all is sound. May also throw
  // StorageError with damaged(). Takes time with the size of the database, and other writers wait: for
  // `ossilar check` only.
  virtual std::optional<std::string> damage() = 0;

  // As upsert_wiki_page(), but a stale mark stays. For a text that somebody changed by hand: the change need
  // not have dealt with the reason of the mark.
  virtual std::int64_t upsert_keeping_mark(const std::string& branch, const std::string& page_id,
                                           const std::string& title, const PageFields& fields) = 0;
  // Replaces two fields of the page's row and nothing else, not even its stale mark. For a page file that is
  // rewritten around an unchanged authored text, as when an older format gets its record.
  virtual void restate_page(const std::string& branch, const std::string& page_id,
                            const std::string& content_hash, const std::vector<Map>& citations) = 0;
  // The key of the page's row, or none.
  virtual std::optional<std::int64_t> page_key(const std::string& branch, const std::string& page_id) = 0;
  // The page's complete build cache, of which StoredRows leave out the large parts; none without a row.
  virtual std::optional<std::string> build_cache(const std::string& branch, const std::string& page_id) = 0;
  // The rows of the pages that cite one of these files, did so once, or have it among their source hashes.
  virtual StoredRows pages_resting_on(const std::string& branch, const std::set<std::string>& paths) = 0;
  // Removes the page's row with its mark, its chunks, their words, and the passages that no other page holds.
  // Does nothing for a page without a row. Its digest stays: persist_digests() decides on digests.
  virtual void remove_page(const std::string& branch, const std::string& page_id) = 0;

  // Passages.
  //
  // Those passages of the page that other pages hold too, in whatever branch; none for a page without a row.
  virtual SharedPassages shared_passages(const std::string& branch, const std::string& page_id,
                                         const std::string& model) = 0;
  // The stored vectors of `model` by hash. A hash without one is missing from the result.
  virtual std::map<std::string, Vector> vectors(const std::string& model,
                                                const std::vector<std::string>& hashes) = 0;
  // Makes `chunks` the chunks of the page whose row has the key `page_key`, and drops the passages that no
  // page holds any more. `shared_before` is what shared_passages() gave as `all`: those passages stay without
  // being looked at. It may name too few, but must name none that only this page holds, or that passage is
  // never dropped. Throws StorageError, with nothing changed, when a chunk without an embedding names a
  // passage that has no vector of its model: another save may have dropped it since it was drafted.
  virtual void store_chunks(std::int64_t page_key, const std::vector<Map>& chunks,
                            const PassageHashes& shared_before) = 0;
  // Indexes the words of pages whose chunks were stored, until at most `most_left` pages wait. store_chunks()
  // defers this, as it costs more than everything else that a save stores; match_words() catches up by
  // itself. Works in transactions of a few pages, so that other writers get their turn.
  virtual void index_waiting_words(std::size_t most_left) = 0;
  // The chunk records of a page in their order, without embeddings.
  virtual std::vector<Map> chunks(const std::string& branch, const std::string& page_id) = 0;

  // Changing the model (passages/reembedding.h). Passages are shared by all branches, so these work on all
  // branches.
  //
  // Some model other than `model` that chunks have; none when all chunks have `model`.
  virtual std::optional<std::string> other_model(const std::string& model) = 0;
  // How many passages have no vector of `model`.
  virtual std::size_t count_without_vector(const std::string& model) = 0;
  // Passages without a vector of `model`, in the order of their hashes, from the first after `after` ("" for
  // all), `limit` at most. So each batch continues after the last, whatever else is stored meanwhile.
  virtual std::vector<PassageText> passages_without_vector(const std::string& model, const std::string& after,
                                                           std::size_t limit) = 0;
  // Stores vectors by passage hash. Ignores those of passages that are gone meanwhile, and those already
  // stored.
  virtual void add_vectors(const std::string& model, const std::map<std::string, Vector>& vectors) = 0;
  // Assigns all chunks to `model` and drops the vectors of other models. False, with nothing changed, when
  // some passage has no vector of `model`: a save with the former model came in between.
  virtual bool keep_model(const std::string& model) = 0;

  // Search. Both give the passages of the branch that match best, the best first, `limit` at most. A passage
  // that several pages hold is found once, with one of its places.
  //
  // Passages that contain any of these words, compared without case and by their stems; identifiers also
  // match by their parts (see utils/identifiers.h). Scores are BM25's. First indexes the words that wait; if
  // that fails, logs it and finds nothing in those pages.
  virtual std::vector<FoundPassage> match_words(const std::string& branch, const std::string& words,
                                                const PassageFilter& filter, std::size_t limit) = 0;
  // Passages whose vectors of `model` have the largest cosines with `query`; these are their scores. `query`
  // must have length 1, as stored vectors do. A passage without such a vector is not found. Reads every
  // vector of the branch, but keeps only `limit` results in memory.
  virtual std::vector<FoundPassage> nearest(const std::string& branch, const std::string& model,
                                            const Vector& query, const PassageFilter& filter,
                                            std::size_t limit) = 0;

  // Digests: what is kept of each page to notice that pages built on it became stale. As get_wiki_pages(),
  // reading costs what changed.
  virtual PageDigests load_digests(const std::string& branch) = 0;
  // Makes `digests` the branch's digests and sets the stale marks that the change causes, both or neither:
  // once the new digests are stored, nothing would show that a mark is missing. Writes only what differs.
  virtual void persist_digests(const std::string& branch, const PageDigests& digests,
                               const std::map<std::string, std::string>& stale) = 0;

  // Stale marks, page id to reason: pages that are stale although their sources did not change. Pages without
  // a row get none; a second mark replaces the first; upsert_wiki_page() removes it.
  virtual void mark_stale(const std::string& branch, const std::map<std::string, std::string>& reasons) = 0;
  virtual std::map<std::string, std::string> stale_marks(const std::string& branch) = 0;

  // Keeps the texts of source files, any bytes, by their FileVersion::hash: of all that the page cites,
  // `cited` names the versions, and `texts` has those that may be new. A text that no page cites any more is
  // dropped.
  virtual void keep_cited_texts(std::int64_t page_key, const std::set<std::string>& cited,
                                const std::map<std::string, std::string>& texts) = 0;
  // None for a version that is not kept.
  virtual std::optional<std::string> cited_text(const std::string& hash) = 0;

  // History: the last versions of each page, by branch and page id. It needs no row and stays when a page is
  // removed.
  //
  // Adds the versions, the oldest first, and then drops the page's oldest ones until at most `most` are left
  // (1 or more). A version that has the name of the newest one kept by then is passed over, so that a caller
  // may hand in the text that it found before the one that it wrote. `number` of the versions is ignored.
  virtual void keep_versions(const std::string& branch, const std::string& page_id,
                             const std::vector<PageVersion>& versions, std::size_t most) = 0;
  // Those kept of the page, the newest first, without their texts.
  virtual std::vector<PageVersion> page_versions(const std::string& branch, const std::string& page_id) = 0;
  // The text of one of them, none if it is not kept.
  virtual std::optional<std::string> version_text(const std::string& branch, const std::string& page_id,
                                                  std::int64_t number) = 0;
  // The texts of the newest versions of these pages, by page id; a page without one is missing.
  virtual std::map<std::string, std::string> newest_texts(const std::string& branch,
                                                          const std::vector<std::string>& page_ids) = 0;
  // Makes the versions of `from` those of `to`. If `to` has some of its own, as a page that was removed has,
  // they stay the older ones, and the moved ones are numbered on after them.
  virtual void move_versions(const std::string& branch, const std::string& from, const std::string& to) = 0;

  // Claims, at most one of a page. `now`, in seconds since 1970, is the caller's clock, so machines that
  // share a store should agree on the time. Claims are committed but not synced: power loss may free a page.
  //
  // Gives the page to the holder of `claim`, or prolongs what it holds, unless another holds the page `now`;
  // gives the claim that stands then. Of several callers one gets a page. Drops the branch's ended claims.
  virtual PageClaim claim_page(const std::string& branch, const PageClaim& claim, std::int64_t now) = 0;
  // Frees the page if `holder` holds it, else does nothing.
  virtual void release_page(const std::string& branch, const std::string& page_id,
                            const std::string& holder) = 0;
  // Those that stand `now`, by page id.
  virtual std::vector<PageClaim> page_claims(const std::string& branch, std::int64_t now) = 0;

  // Copying (store_copy.h): what there is, and a history with the numbers that people know.
  //
  // The branches that have pages, a history, digests or a state, in the order of their bytes.
  virtual std::vector<std::string> branches() = 0;
  // None for a page without a row. Throws StorageError with damaged() where a list in it is no JSON.
  virtual std::optional<StoredPage> stored_page(const std::string& branch, const std::string& page_id) = 0;
  // The versions that keep_cited_texts() was given as `cited` of the page.
  virtual std::set<std::string> cited_versions(std::int64_t page_key) = 0;
  // The pages that have versions, with a row or without.
  virtual std::set<std::string> pages_with_history(const std::string& branch) = 0;
  // Makes `versions` the versions of the page, under the numbers that they have.
  virtual void replace_versions(const std::string& branch, const std::string& page_id,
                                const std::vector<PageVersion>& versions) = 0;

  // None before the branch's first save.
  virtual std::optional<WikiStateFields> wiki_state(const std::string& branch) = 0;

  // Manifests that were written from this database's rows alone, file name to a hash of the text. Such a
  // manifest brings no news from elsewhere, so no page is taken over because of it. Notes are committed but
  // not synced, like the wiki state.
  virtual std::map<std::string, std::string> own_lists(const std::string& branch) = 0;
  virtual void note_own_lists(const std::string& branch,
                              const std::map<std::string, std::string>& hashes) = 0;

  // Calls `take` for each record of the source index, in any order. Records are opaque to the store. The
  // views are valid during the call only, and `take` must not call the store, whose reader is in use.
  using TakeRecord = std::function<void(std::string_view path, std::string_view record)>;
  virtual void source_records(const TakeRecord& take) = 0;
  // In one transaction: a text replaces the record of its path, none removes it. Records only save reading
  // sources again, so they are not worth a wait: while another process writes, nothing is stored, and the
  // call succeeds.
  virtual void update_source_records(const std::map<std::string, std::optional<std::string>>& changes) = 0;
};

// The store within one transaction; reads see what it has written. A write that fails takes back itself
// alone, and the transaction goes on without it. Where the failure ended the whole transaction, as a full
// disk may, every later write and commit() throw. begin() throws std::logic_error: transactions do not nest.
//
// Thread-safety: one thread, the one that began it, until it is destroyed.
class StoreTransaction : public WikiStore {
 public:
  // Puts everything that was written on disk. Call it once, last. After a StorageError nothing may be
  // assumed: most often nothing is stored, but a commit that fails may still have reached the file.
  virtual void commit() = 0;
};

}  // namespace ossilar::store
