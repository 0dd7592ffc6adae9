// What a wiki keeps, asked for by what it means: rows, chunks with their passages, digests, state. Nothing
// here says which database is behind it.
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

// The store cannot do what was asked: a full disk, a damaged file, a database of another program.
class StorageError : public utils::Error {
 public:
  explicit StorageError(const std::string& message, bool damaged = false,
                        utils::Place place = utils::Place::current())
      : Error(message, place), damaged_(damaged) {}
  // Whether what is stored cannot be read, so that trying again is of no use and making it anew is.
  bool damaged() const { return damaged_; }

 private:
  bool damaged_;
};

// Stored rows by page id. A row has, in this order, the keys `page_id`, `title` and those of PageFields,
// under the fields' names. To keep many rows at hand, `source_files`, `source_hashes`, `related_pages` and
// `citations` are JSON text, as `build_cache` is; `symbols` is left out, and of a `build_cache` that is a
// JSON object `prose`, `sections` and `diagrams`.
using StoredRows = utils::SnapshotMap<Map>;

// Digests by page id.
using PageDigests = utils::SnapshotMap<Map>;

// The keyword arguments of a page's row, in the order of the contract. Each has a default, so a call may name
// some.
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
};

// The keyword arguments of a branch's wiki state, in the order of the contract.
struct WikiStateFields {
  std::string last_built_at = {};  // ISO 8601
  std::string last_commit = {};
  std::int64_t changed_since_build = 0;
  std::string model = {};  // names the last writer
  std::int64_t page_count = 0;
  std::string manifest_hash = {};
};

// The index gateway that a save writes through. Each write is on disk when its call returns; in a
// transaction, see WikiStore::begin(), when that is committed.
//
// Thread-safety: every member may be called from any thread. Errors: StorageError.
class Repository {
 public:
  Repository() = default;
  Repository(const Repository&) = delete;
  Repository& operator=(const Repository&) = delete;
  virtual ~Repository() = default;

  // Inserts or updates the row of (branch, page_id) and gives its key. The row's stale mark goes.
  virtual std::int64_t upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                        const std::string& title, const PageFields& fields) = 0;

  // Best effort: on disk with the next write of another kind, at the latest.
  virtual void upsert_wiki_state(const std::string& branch, const WikiStateFields& fields) = 0;

  // The branch's rows as stored now. Only what changed since the last call is read.
  virtual StoredRows get_wiki_pages(const std::string& branch) = 0;
};

// Passages are named by the SHA-256 of their text and kept once, however many pages hold them.
using PassageHashes = std::set<std::string, std::less<>>;
using Vector = std::vector<float>;

// What other pages hold of the passages that one page holds.
struct SharedPassages {
  PassageHashes embedded;  // those that have a vector of the model that was asked about
  PassageHashes all;
};

// The keys of a chunk record. `kEmbedding` is a list of numbers, or embedding_form() of them, or null for a
// passage whose vector is kept already.
namespace chunk_key {
inline constexpr const char* kPosition = "position";  // 0, 1, ... in the order of the page
inline constexpr const char* kSection = "section";    // the heading it stands under, "" above the first
inline constexpr const char* kText = "text";
inline constexpr const char* kHash = "hash";
inline constexpr const char* kModel = "model";          // of the embedder
inline constexpr const char* kCitations = "citations";  // those that stand in the passage
inline constexpr const char* kEmbedding = "embedding";
}  // namespace chunk_key

// The vector as it is stored, in one piece: a list would be a value for each number.
Map embedding_form(const Vector& vector);

struct PassageText {
  std::string hash;
  std::string text;
};

// Which passages a search looks at; "" leaves a field open.
struct PassageFilter {
  std::string page_type = {};
  // A source file or a folder: passages that cite it or something in it, and those of pages that rest on
  // such.
  std::string path = {};
};

// A passage with the place of the page at which it was found.
struct FoundPassage {
  std::string page_id = {};
  std::string title = {};
  std::string page_type = {};
  std::string rel_path = {};
  std::string section = {};
  std::string text = {};
  std::string hash = {};
  Map citations = {};  // as in a chunk record
  double score = 0;
};

class StoreTransaction;

// Everything that the host of a wiki keeps.
class WikiStore : public Repository {
 public:
  // Begins a transaction: what is written through the result is on disk all at once, when it is committed,
  // and without a commit it is taken back at the result's end. Until then other writers, those of other
  // processes too, wait, and nobody else sees it. `attempt` is what commit() says it could not do: "store the
  // page a".
  virtual std::unique_ptr<StoreTransaction> begin(const std::string& attempt) = 0;

  // Reads everything and gives what is damaged in it, in words; none when all is sound.
  virtual std::optional<std::string> damage() = 0;

  // As upsert_wiki_page(), but a stale mark stays.
  virtual std::int64_t upsert_keeping_mark(const std::string& branch, const std::string& page_id,
                                           const std::string& title, const PageFields& fields) = 0;
  // Replaces two fields of the page's row, for a page file that was written anew with the same text of its
  // author; all else stays, a stale mark too.
  virtual void restate_page(const std::string& branch, const std::string& page_id,
                            const std::string& content_hash, const std::vector<Map>& citations) = 0;
  // The key of the page's row, or none.
  virtual std::optional<std::int64_t> page_key(const std::string& branch, const std::string& page_id) = 0;
  // The page's build cache whole, or none without a row.
  virtual std::optional<std::string> build_cache(const std::string& branch, const std::string& page_id) = 0;
  // Removes the page's row with its mark, its chunks and the passages that no other page holds. Its digest
  // stays.
  virtual void remove_page(const std::string& branch, const std::string& page_id) = 0;

  // Passages.
  virtual SharedPassages shared_passages(const std::string& branch, const std::string& page_id,
                                         const std::string& model) = 0;
  // The vectors of `model` that are kept for `hashes`; one that is not kept is missing in the result.
  virtual std::map<std::string, Vector> vectors(const std::string& model,
                                                const std::vector<std::string>& hashes) = 0;
  // Makes `chunks` the chunks of the page whose row has the key `page_key`, and drops the passages that no
  // page holds any more. A passage in `shared_before` is held by another page and stays. Throws StorageError,
  // with nothing changed, when a chunk without an embedding names a passage that has no vector of its model.
  virtual void store_chunks(std::int64_t page_key, const std::vector<Map>& chunks,
                            const PassageHashes& shared_before) = 0;
  // Indexes words for match_words(), which does it too, of pages whose chunks were stored, until at most
  // `most_left` wait for it. A few pages at a time, which other writers wait for.
  virtual void index_waiting_words(std::size_t most_left) = 0;
  // The chunk records of a page in their order, embeddings left out.
  virtual std::vector<Map> chunks(const std::string& branch, const std::string& page_id) = 0;

  // Changing the model. These are about all branches, as passages are.
  //
  // A model other than `model` that chunks are of; none when there is no such chunk.
  virtual std::optional<std::string> other_model(const std::string& model) = 0;
  virtual std::size_t count_without_vector(const std::string& model) = 0;
  // Passages without a vector of `model` whose hashes come after `after`, in that order.
  virtual std::vector<PassageText> passages_without_vector(const std::string& model, const std::string& after,
                                                           std::size_t limit) = 0;
  // Keeps vectors by passage hash; one of a passage that is gone meanwhile is left out.
  virtual void add_vectors(const std::string& model, const std::map<std::string, Vector>& vectors) = 0;
  // Makes all chunks those of `model` and drops the vectors of others. False, with nothing changed, when a
  // passage has no vector of `model`.
  virtual bool keep_model(const std::string& model) = 0;

  // Search. Both give the best passages of the branch first, `limit` at most; one that several pages hold
  // comes once, with one of its places.
  //
  // Passages that hold any of these words, caselessly and by their stems (of identifiers by their parts, see
  // utils/identifiers.h). The score is BM25's, the more the better.
  virtual std::vector<FoundPassage> match_words(const std::string& branch, const std::string& words,
                                                const PassageFilter& filter, std::size_t limit) = 0;
  // Passages whose vectors of `model` have the largest cosines with `query`, which are their scores. Memory
  // does not grow with the wiki. A passage without such a vector is not found.
  virtual std::vector<FoundPassage> nearest(const std::string& branch, const std::string& model,
                                            const Vector& query, const PassageFilter& filter,
                                            std::size_t limit) = 0;

  // Digests.
  virtual PageDigests load_digests(const std::string& branch) = 0;
  // Makes `digests` the branch's digests, and sets the stale marks that this causes, as mark_stale() does:
  // both or none. Writes only what differs from what is stored.
  virtual void persist_digests(const std::string& branch, const PageDigests& digests,
                               const std::map<std::string, std::string>& stale) = 0;

  // Stale marks: page id to reason. Marks are set on pages that have a row; a page's next upsert takes its
  // mark away.
  virtual void mark_stale(const std::string& branch, const std::map<std::string, std::string>& reasons) = 0;
  virtual std::map<std::string, std::string> stale_marks(const std::string& branch) = 0;

  virtual std::optional<WikiStateFields> wiki_state(const std::string& branch) = 0;

  // The lists that were written of the branch's rows alone, by file name, each with a hash of its text: what
  // one of them says did not come from elsewhere. A note is on disk with the next write that is, at the
  // latest.
  virtual std::map<std::string, std::string> own_lists(const std::string& branch) = 0;
  virtual void note_own_lists(const std::string& branch,
                              const std::map<std::string, std::string>& hashes) = 0;

  // Calls `take` for each record of a source index, opaque here, in any order.
  using TakeRecord = std::function<void(std::string_view path, std::string_view record)>;
  virtual void source_records(const TakeRecord& take) = 0;
  // In one transaction: a text replaces the record of its path, none removes it. They save reading what can
  // be read again, so nobody waits for long to store them: while another writes, nothing is stored.
  virtual void update_source_records(const std::map<std::string, std::optional<std::string>>& changes) = 0;
};

// The store within one transaction: reads see what was written before. A write that fails takes itself back
// and no other; where the failure took back more, commit() says so. Transactions do not nest.
//
// Thread-safety: one thread at a time, from the begin to the end.
class StoreTransaction : public WikiStore {
 public:
  // Puts what was written on disk, all of it or, with StorageError, nothing that anybody may rely on: a
  // commit that fails may have reached the file.
  virtual void commit() = 0;
};

}  // namespace ossilar::store
