// Every operation of the store, in terms of a connection. Internal to this room: the bases of SqliteStore and
// SqliteTransaction, which differ in how an operation runs (see sqlite_store.cc).
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/branch_facts.h"
#include "ossilar/store/sqlite/claims.h"
#include "ossilar/store/sqlite/connection.h"
#include "ossilar/store/sqlite/damage.h"
#include "ossilar/store/sqlite/history.h"
#include "ossilar/store/sqlite/passages.h"
#include "ossilar/store/sqlite/rows.h"
#include "ossilar/store/sqlite/snapshots.h"
#include "ossilar/store/sqlite/word_index.h"
#include "ossilar/utils/logging.h"

namespace ossilar::store {

inline const utils::Logger logger("ossilar.store");

// The result of `Work`, a callable that takes a connection, or a connection and its snapshots.
template <class Work>
using Result = typename std::conditional_t<std::is_invocable_v<Work, Connection&, Snapshots&>,
                                           std::invoke_result<Work, Connection&, Snapshots&>,
                                           std::invoke_result<Work, Connection&>>::type;

// Calls `work` with what it takes, so that operations without use for snapshots need not name them.
template <class Work>
Result<Work> ask(Work& work, Connection& connection, Snapshots& last) {
  if constexpr (std::is_invocable_v<Work, Connection&, Snapshots&>) {
    return work(connection, last);
  } else {
    return work(connection);
  }
}

// The result of `work` when `run` runs it. A virtual function cannot be a template, so `run` takes a function
// without a result, and the result is carried out beside it.
template <class Work, class Run>
Result<Work> result_of(Work& work, Run run) {
  if constexpr (std::is_void_v<Result<Work>>) {
    run([&](Connection& connection, Snapshots& last) { ask(work, connection, last); });
  } else {
    std::optional<Result<Work>> result;
    run([&](Connection& connection, Snapshots& last) { result.emplace(ask(work, connection, last)); });
    return *std::move(result);
  }
}

// Each operation is written once. SqliteStore runs it in a transaction of its own, SqliteTransaction as a
// step of its one transaction; they decide by the three run_...() below when it is on disk and what a failure
// takes back.
//
// `attempt` completes "cannot ..." in messages. Thread-safety, errors: those of the run_...().
template <class Interface>
class SqliteOperations : public Interface {
 public:
  std::int64_t upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                const std::string& title, const PageFields& fields) override {
    return write("store the page " + page_id, [&](Connection& connection) {
      const std::int64_t key =
          write_page(connection, branch, page_id, title, fields, next_revision(connection));
      clear_mark(connection, key);
      return key;
    });
  }

  std::int64_t upsert_keeping_mark(const std::string& branch, const std::string& page_id,
                                   const std::string& title, const PageFields& fields) override {
    return write("store the page " + page_id, [&](Connection& connection) {
      return write_page(connection, branch, page_id, title, fields, next_revision(connection));
    });
  }

  void restate_page(const std::string& branch, const std::string& page_id, const std::string& content_hash,
                    const std::vector<Map>& citations) override {
    write("store the page " + page_id, [&](Connection& connection) {
      restate_row(connection, branch, page_id, content_hash, citations, next_revision(connection));
    });
  }

  void upsert_wiki_state(const std::string& branch, const WikiStateFields& fields) override {
    write_soon("store the state of the branch " + branch,
               [&](Connection& connection) { write_state(connection, branch, fields); });
  }

  StoredRows get_wiki_pages(const std::string& branch) override {
    return read("read the pages of the branch " + branch, [&](Connection& connection, Snapshots& last) {
      return read_pages(connection, last.pages[branch], branch);
    });
  }

  StoredRows pages_resting_on(const std::string& branch, const std::set<std::string>& paths) override {
    return read("read the pages that rest on some files",
                [&](Connection& connection) { return read_pages_resting_on(connection, branch, paths); });
  }

  // A write, as FTS5's check has the form of one.
  std::optional<std::string> damage() override {
    return write("check it for damage", [](Connection& connection) { return first_damage(connection); });
  }

  std::optional<std::int64_t> page_key(const std::string& branch, const std::string& page_id) override {
    return read("look for the page " + page_id,
                [&](Connection& connection) { return row_key(connection, branch, page_id); });
  }

  std::optional<std::string> build_cache(const std::string& branch, const std::string& page_id) override {
    return read("read the page " + page_id,
                [&](Connection& connection) { return read_build_cache(connection, branch, page_id); });
  }

  // The row goes last. It takes its chunks along (ON DELETE CASCADE), and with them the record of the
  // passages that go with the page. Without chunks, index_words() only drops the page's words.
  void remove_page(const std::string& branch, const std::string& page_id) override {
    write("remove the page " + page_id, [&](Connection& connection) {
      const auto key = row_key(connection, branch, page_id);
      if (!key) return;
      replace_chunks(connection, *key, {}, {});
      store::index_words(connection, *key);
      remove_row(connection, branch, page_id, next_revision(connection));
    });
  }

  SharedPassages shared_passages(const std::string& branch, const std::string& page_id,
                                 const std::string& model) override {
    return read("read the passages of the page " + page_id, [&](Connection& connection) {
      return read_shared_passages(connection, branch, page_id, model);
    });
  }

  std::map<std::string, Vector> vectors(const std::string& model,
                                        const std::vector<std::string>& hashes) override {
    return read("read vectors of the model " + model,
                [&](Connection& connection) { return read_vectors(connection, model, hashes); });
  }

  void store_chunks(std::int64_t page_key, const std::vector<Map>& chunks,
                    const PassageHashes& shared_before) override {
    write("store the chunks of the page with the key " + std::to_string(page_key),
          [&](Connection& connection) {
            replace_chunks(connection, page_key, chunks, shared_before);
            make_words_due(connection, page_key);
          });
  }

  std::vector<Map> chunks(const std::string& branch, const std::string& page_id) override {
    return read("read the chunks of the page " + page_id,
                [&](Connection& connection) { return read_chunks(connection, branch, page_id); });
  }

  std::optional<std::string> other_model(const std::string& model) override {
    return read("look for other models than " + model,
                [&](Connection& connection) { return read_other_model(connection, model); });
  }

  std::size_t count_without_vector(const std::string& model) override {
    return read("count passages without a vector of " + model,
                [&](Connection& connection) { return count_lacking(connection, model); });
  }

  std::vector<PassageText> passages_without_vector(const std::string& model, const std::string& after,
                                                   std::size_t limit) override {
    return read("read passages without a vector of " + model,
                [&](Connection& connection) { return read_lacking(connection, model, after, limit); });
  }

  void add_vectors(const std::string& model, const std::map<std::string, Vector>& vectors) override {
    write("store vectors of " + model,
          [&](Connection& connection) { keep_vectors(connection, model, vectors); });
  }

  bool keep_model(const std::string& model) override {
    return write("drop vectors of other models than " + model,
                 [&](Connection& connection) { return drop_other_models(connection, model); });
  }

  // A batch per transaction, so that other writers get their turn in between; the count is asked anew, as
  // other processes index and store meanwhile.
  void index_waiting_words(std::size_t most_left) override {
    const std::string attempt = "index the words of pages";
    for (;;) {
      const std::size_t due = read(attempt, count_due_words);
      if (due <= most_left) return;
      const std::size_t most = std::min(due - most_left, words_together());
      write(attempt, [&](Connection& connection) { index_due_words(connection, most); });
    }
  }

  std::vector<FoundPassage> match_words(const std::string& branch, const std::string& words,
                                        const PassageFilter& filter, std::size_t limit) override {
    // A search must not fail because the database cannot be written: find_words() leaves out pages that wait.
    try {
      index_waiting_words(0);
    } catch (const StorageError& error) {
      logger.warning(
          "the last saved pages are not in the word index yet, so this search finds them by similarity alone",
          error);
    }
    return read("search the words of the branch " + branch,
                [&](Connection& connection) { return find_words(connection, branch, words, filter, limit); });
  }

  std::vector<FoundPassage> nearest(const std::string& branch, const std::string& model, const Vector& query,
                                    const PassageFilter& filter, std::size_t limit) override {
    return read("search the vectors of the branch " + branch, [&](Connection& connection) {
      return find_nearest(connection, branch, {.model = model, .vector = query}, filter, limit);
    });
  }

  PageDigests load_digests(const std::string& branch) override {
    return read("read the digests of the branch " + branch, [&](Connection& connection, Snapshots& last) {
      return read_digests(connection, last.digests[branch], branch);
    });
  }

  void persist_digests(const std::string& branch, const PageDigests& digests,
                       const StaleMarks& stale) override {
    write("store the digests of the branch " + branch, [&](Connection& connection, Snapshots& last) {
      write_digests(connection, last.digests[branch], branch, digests);
      write_marks(connection, branch, stale);
    });
  }

  void mark_stale(const std::string& branch, const std::map<std::string, std::string>& reasons) override {
    if (reasons.empty()) return;  // spares a transaction, and its sync
    write("mark pages of the branch " + branch + " as stale",
          [&](Connection& connection) { write_marks(connection, branch, reasons); });
  }

  void keep_cited_texts(std::int64_t page_key, const std::set<std::string>& cited,
                        const std::map<std::string, std::string>& texts) override {
    write("keep the texts that a page cites",
          [&](Connection& connection) { write_cited_texts(connection, page_key, cited, texts); });
  }

  std::optional<std::string> cited_text(const std::string& hash) override {
    return read("read a text that a page cites",
                [&](Connection& connection) { return read_cited_text(connection, hash); });
  }

  StaleMarks stale_marks(const std::string& branch) override {
    return read("read the stale marks of the branch " + branch,
                [&](Connection& connection) { return read_marks(connection, branch); });
  }

  void keep_versions(const std::string& branch, const std::string& page_id,
                     const std::vector<PageVersion>& versions, std::size_t most) override {
    write("keep the version of the page " + page_id,
          [&](Connection& connection) { write_versions(connection, branch, page_id, versions, most); });
  }

  std::vector<PageVersion> page_versions(const std::string& branch, const std::string& page_id) override {
    return read("read the history of the page " + page_id,
                [&](Connection& connection) { return read_versions(connection, branch, page_id); });
  }

  std::optional<std::string> version_text(const std::string& branch, const std::string& page_id,
                                          std::int64_t number) override {
    return read("read a version of the page " + page_id, [&](Connection& connection) {
      return read_version_text(connection, branch, page_id, number);
    });
  }

  std::map<std::string, std::string> newest_texts(const std::string& branch,
                                                  const std::vector<std::string>& page_ids) override {
    return read("read the newest versions of pages",
                [&](Connection& connection) { return read_newest_texts(connection, branch, page_ids); });
  }

  void move_versions(const std::string& branch, const std::string& from, const std::string& to) override {
    write("move the history of the page " + from,
          [&](Connection& connection) { renumber_versions(connection, branch, from, to); });
  }

  PageClaim claim_page(const std::string& branch, const PageClaim& claim, std::int64_t now) override {
    PageClaim standing;
    write_soon("claim the page " + claim.page_id,
               [&](Connection& connection) { standing = write_claim(connection, branch, claim, now); });
    return standing;
  }

  void release_page(const std::string& branch, const std::string& page_id,
                    const std::string& holder) override {
    write_soon("release the page " + page_id,
               [&](Connection& connection) { drop_claim(connection, branch, page_id, holder); });
  }

  std::vector<PageClaim> page_claims(const std::string& branch, std::int64_t now) override {
    return read("read the claims of the branch " + branch,
                [&](Connection& connection) { return read_claims(connection, branch, now); });
  }

  std::vector<std::string> branches() override {
    return read("list the branches", [&](Connection& connection) { return read_branches(connection); });
  }
  std::optional<StoredPage> stored_page(const std::string& branch, const std::string& page_id) override {
    return read("read the page " + page_id,
                [&](Connection& connection) { return read_stored_page(connection, branch, page_id); });
  }
  std::set<std::string> cited_versions(std::int64_t page_key) override {
    return read("list the texts that a page cites",
                [&](Connection& connection) { return read_cited_versions(connection, page_key); });
  }
  std::set<std::string> pages_with_history(const std::string& branch) override {
    return read("list the histories of the branch " + branch,
                [&](Connection& connection) { return read_pages_with_history(connection, branch); });
  }
  void replace_versions(const std::string& branch, const std::string& page_id,
                        const std::vector<PageVersion>& versions) override {
    write("store the history of the page " + page_id,
          [&](Connection& connection) { put_versions(connection, branch, page_id, versions); });
  }

  std::optional<WikiStateFields> wiki_state(const std::string& branch) override {
    return read("read the state of the branch " + branch,
                [&](Connection& connection) { return read_state(connection, branch); });
  }

  OwnLists own_lists(const std::string& branch) override {
    return read("read the hashes of the lists of the branch " + branch,
                [&](Connection& connection) { return read_own_lists(connection, branch); });
  }

  void note_own_lists(const std::string& branch, const OwnLists& hashes) override {
    write_soon("store the hashes of the lists of the branch " + branch,
               [&](Connection& connection) { write_own_lists(connection, branch, hashes); });
  }

  void source_records(const WikiStore::TakeRecord& take) override {
    read("read the source index", [&](Connection& connection) { read_records(connection, take); });
  }

  void update_source_records(const std::map<std::string, std::optional<std::string>>& changes) override {
    write("store the source index", [&](Connection& connection) { write_records(connection, changes); });
  }

 protected:
  using Work = std::function<void(Connection& connection, Snapshots& last)>;

  // All three call `work` once, and throw its failures as StorageError.
  //
  // Runs `work` on one state of the database. It may bring the snapshots up to date, and writes nothing.
  virtual void run_reading(const std::string& attempt, const Work& work) = 0;
  // Runs `work` as one unit: when it fails, nothing of it is stored.
  virtual void run_writing(const std::string& attempt, const Work& work) = 0;
  // The same without a sync of its own: on disk at the latest with the next write that is synced.
  virtual void run_writing_soon(const std::string& attempt, const Work& work) = 0;
  // How many pages index_waiting_words() indexes in one run_writing().
  virtual std::size_t words_together() const = 0;

  template <class Ask>
  Result<Ask> read(const std::string& attempt, Ask work) {
    return result_of(work, [&](const Work& run) { run_reading(attempt, run); });
  }
  template <class Ask>
  void write_soon(const std::string& attempt, Ask work) {
    run_writing_soon(attempt, [&](Connection& connection, Snapshots& last) { ask(work, connection, last); });
  }
  template <class Ask>
  Result<Ask> write(const std::string& attempt, Ask work) {
    return result_of(work, [&](const Work& run) { run_writing(attempt, run); });
  }
};

}  // namespace ossilar::store
