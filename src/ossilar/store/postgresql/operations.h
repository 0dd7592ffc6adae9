// Every operation of the store, in terms of a session. Internal to this room: the bases of the store and of
// its transactions, which differ in how an operation runs (see postgresql_store.cc).
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "ossilar/store/postgresql/claims.h"
#include "ossilar/store/postgresql/facts.h"
#include "ossilar/store/postgresql/history.h"
#include "ossilar/store/postgresql/passages.h"
#include "ossilar/store/postgresql/rows.h"
#include "ossilar/store/postgresql/search.h"
#include "ossilar/store/postgresql/session.h"
#include "ossilar/store/repository.h"

namespace ossilar::store::postgresql {

// `attempt` completes "cannot ..." in messages. What is this machine's alone, records of its sources and
// notes of its lists, goes to the store `local()`: sources differ between checkouts, and each machine has
// lists of its own.
//
// Thread-safety, errors: those of the run_...().
template <class Interface>
class Operations : public Interface {
 public:
  std::int64_t upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                const std::string& title, const PageFields& fields) override {
    return write("store the page " + page_id, [&](Session& session) {
      return write_page(session, branch, page_id, title, fields, Mark::clear);
    });
  }
  std::int64_t upsert_keeping_mark(const std::string& branch, const std::string& page_id,
                                   const std::string& title, const PageFields& fields) override {
    return write("store the page " + page_id, [&](Session& session) {
      return write_page(session, branch, page_id, title, fields, Mark::keep);
    });
  }
  void restate_page(const std::string& branch, const std::string& page_id, const std::string& content_hash,
                    const std::vector<Map>& citations) override {
    write("store the page " + page_id,
          [&](Session& session) { restate_row(session, branch, page_id, content_hash, citations); });
  }
  StoredRows get_wiki_pages(const std::string& branch) override {
    return read("read the pages of the branch " + branch,
                [&](Session& session) { return read_pages(session, branch); });
  }
  // The rows are in memory anyway, so they are looked through there.
  StoredRows pages_resting_on(const std::string& branch, const std::set<std::string>& paths) override {
    StoredRows pages;
    get_wiki_pages(branch).for_each([&](const std::string& page_id, const Map& row) {
      if (rests_on(row, paths)) pages.set(page_id, row);
    });
    return pages;
  }
  std::optional<std::int64_t> page_key(const std::string& branch, const std::string& page_id) override {
    return read("look for the page " + page_id,
                [&](Session& session) { return row_key(session, branch, page_id); });
  }
  std::optional<std::string> build_cache(const std::string& branch, const std::string& page_id) override {
    return read("read the page " + page_id,
                [&](Session& session) { return read_build_cache(session, branch, page_id); });
  }
  void remove_page(const std::string& branch, const std::string& page_id) override {
    write("remove the page " + page_id, [&](Session& session) { remove_row(session, branch, page_id); });
  }

  SharedPassages shared_passages(const std::string& branch, const std::string& page_id,
                                 const std::string& model) override {
    return read("read the passages of the page " + page_id,
                [&](Session& session) { return read_shared_passages(session, branch, page_id, model); });
  }
  std::map<std::string, Vector> vectors(const std::string& model,
                                        const std::vector<std::string>& hashes) override {
    return read("read vectors of the model " + model,
                [&](Session& session) { return read_vectors(session, model, hashes); });
  }
  // What was shared before need not be known: an index tells which passages go.
  void store_chunks(std::int64_t page_key, const std::vector<Map>& chunks,
                    const PassageHashes& /*shared_before*/) override {
    write("store the chunks of the page with the key " + std::to_string(page_key),
          [&](Session& session) { replace_chunks(session, page_key, chunks); });
  }
  // No words wait: they are stored with their chunks.
  void index_waiting_words(std::size_t /*most_left*/) override {}
  std::vector<Map> chunks(const std::string& branch, const std::string& page_id) override {
    return read("read the chunks of the page " + page_id,
                [&](Session& session) { return read_chunks(session, branch, page_id); });
  }

  std::optional<std::string> other_model(const std::string& model) override {
    return read("look for other models than " + model,
                [&](Session& session) { return read_other_model(session, model); });
  }
  std::size_t count_without_vector(const std::string& model) override {
    return read("count passages without a vector of " + model,
                [&](Session& session) { return count_lacking(session, model); });
  }
  std::vector<PassageText> passages_without_vector(const std::string& model, const std::string& after,
                                                   std::size_t limit) override {
    return read("read passages without a vector of " + model,
                [&](Session& session) { return read_lacking(session, model, after, limit); });
  }
  void add_vectors(const std::string& model, const std::map<std::string, Vector>& vectors) override {
    write("store vectors of " + model, [&](Session& session) { keep_vectors(session, model, vectors); });
  }
  bool keep_model(const std::string& model) override {
    return write("drop vectors of other models than " + model,
                 [&](Session& session) { return drop_other_models(session, model); });
  }

  std::vector<FoundPassage> match_words(const std::string& branch, const std::string& words,
                                        const PassageFilter& filter, std::size_t limit) override {
    return read("search the words of the branch " + branch,
                [&](Session& session) { return find_words(session, branch, words, filter, limit); });
  }
  std::vector<FoundPassage> nearest(const std::string& branch, const std::string& model, const Vector& query,
                                    const PassageFilter& filter, std::size_t limit) override {
    return read("search the vectors of the branch " + branch, [&](Session& session) {
      return find_nearest(session, vector_cache(), branch, model, query, filter, limit);
    });
  }

  PageDigests load_digests(const std::string& branch) override {
    return read("read the digests of the branch " + branch,
                [&](Session& session) { return read_digests(session, branch); });
  }
  void persist_digests(const std::string& branch, const PageDigests& digests,
                       const std::map<std::string, std::string>& stale) override {
    write("store the digests of the branch " + branch,
          [&](Session& session) { write_digests(session, branch, digests, stale); });
  }
  void mark_stale(const std::string& branch, const std::map<std::string, std::string>& reasons) override {
    if (reasons.empty()) return;  // spares a transaction
    write("mark pages of the branch " + branch + " as stale",
          [&](Session& session) { session.send({marking(branch, reasons)}); });
  }
  std::map<std::string, std::string> stale_marks(const std::string& branch) override {
    return read("read the stale marks of the branch " + branch,
                [&](Session& session) { return read_marks(session, branch); });
  }

  void keep_cited_texts(std::int64_t page_key, const std::set<std::string>& cited,
                        const std::map<std::string, std::string>& texts) override {
    write("keep the texts that a page cites",
          [&](Session& session) { write_cited_texts(session, page_key, cited, texts); });
  }
  std::optional<std::string> cited_text(const std::string& hash) override {
    return read("read a text that a page cites",
                [&](Session& session) { return read_cited_text(session, hash); });
  }

  void keep_versions(const std::string& branch, const std::string& page_id,
                     const std::vector<PageVersion>& versions, std::size_t most) override {
    write("keep the version of the page " + page_id,
          [&](Session& session) { write_versions(session, branch, page_id, versions, most); });
  }
  std::vector<PageVersion> page_versions(const std::string& branch, const std::string& page_id) override {
    return read("read the history of the page " + page_id,
                [&](Session& session) { return read_versions(session, branch, page_id); });
  }
  std::optional<std::string> version_text(const std::string& branch, const std::string& page_id,
                                          std::int64_t number) override {
    return read("read a version of the page " + page_id,
                [&](Session& session) { return read_version_text(session, branch, page_id, number); });
  }
  std::map<std::string, std::string> newest_texts(const std::string& branch,
                                                  const std::vector<std::string>& page_ids) override {
    return read("read the newest versions of pages",
                [&](Session& session) { return read_newest_texts(session, branch, page_ids); });
  }
  void move_versions(const std::string& branch, const std::string& from, const std::string& to) override {
    write("move the history of the page " + from,
          [&](Session& session) { renumber_versions(session, branch, from, to); });
  }

  PageClaim claim_page(const std::string& branch, const PageClaim& claim, std::int64_t now) override {
    return write("claim the page " + claim.page_id,
                 [&](Session& session) { return write_claim(session, branch, claim, now); });
  }
  void release_page(const std::string& branch, const std::string& page_id,
                    const std::string& holder) override {
    run_soon("release the page " + page_id, releasing(branch, page_id, holder));
  }
  std::vector<PageClaim> page_claims(const std::string& branch, std::int64_t now) override {
    return read("read the claims of the branch " + branch,
                [&](Session& session) { return read_claims(session, branch, now); });
  }
  std::vector<std::string> branches() override {
    return read("list the branches", [&](Session& session) { return read_branches(session); });
  }
  std::optional<StoredPage> stored_page(const std::string& branch, const std::string& page_id) override {
    return read("read the page " + page_id,
                [&](Session& session) { return read_stored_page(session, branch, page_id); });
  }
  std::set<std::string> cited_versions(std::int64_t page_key) override {
    return read("list the texts that a page cites",
                [&](Session& session) { return read_cited_versions(session, page_key); });
  }
  std::set<std::string> pages_with_history(const std::string& branch) override {
    return read("list the histories of the branch " + branch,
                [&](Session& session) { return read_pages_with_history(session, branch); });
  }
  void replace_versions(const std::string& branch, const std::string& page_id,
                        const std::vector<PageVersion>& versions) override {
    write("store the history of the page " + page_id,
          [&](Session& session) { put_versions(session, branch, page_id, versions); });
  }

  void upsert_wiki_state(const std::string& branch, const WikiStateFields& fields) override {
    run_soon("store the state of the branch " + branch, stating(branch, fields));
  }
  std::optional<WikiStateFields> wiki_state(const std::string& branch) override {
    return read("read the state of the branch " + branch,
                [&](Session& session) { return read_state(session, branch); });
  }

  std::map<std::string, std::string> own_lists(const std::string& branch) override {
    return local().own_lists(branch);
  }
  void note_own_lists(const std::string& branch, const std::map<std::string, std::string>& hashes) override {
    local().note_own_lists(branch, hashes);
  }
  void source_records(const WikiStore::TakeRecord& take) override { local().source_records(take); }
  void update_source_records(const std::map<std::string, std::optional<std::string>>& changes) override {
    local().update_source_records(changes);
  }

 protected:
  using Work = std::function<void(Session& session)>;

  // All throw the failures of `work` as StorageError. It may be run again where the connection turned out to
  // be lost before it had written.
  virtual void run_reading(const std::string& attempt, const Work& work) = 0;
  // Runs `work` as one unit: when it fails, nothing of it is stored.
  virtual void run_writing(const std::string& attempt, const Work& work) = 0;
  // A write that may be lost in a crash of the server.
  virtual void run_soon(const std::string& attempt, Statement statement) = 0;
  virtual WikiStore& local() = 0;
  virtual VectorCache& vector_cache() = 0;

  template <class Ask>
  std::invoke_result_t<Ask, Session&> read(const std::string& attempt, Ask ask) {
    return result_of(ask, [&](const Work& work) { run_reading(attempt, work); });
  }
  template <class Ask>
  std::invoke_result_t<Ask, Session&> write(const std::string& attempt, Ask ask) {
    return result_of(ask, [&](const Work& work) { run_writing(attempt, work); });
  }

 private:
  // A virtual function cannot be a template, so the result of `ask` is carried out beside it.
  template <class Ask, class Run>
  static std::invoke_result_t<Ask, Session&> result_of(Ask& ask, Run run) {
    using Answer = std::invoke_result_t<Ask, Session&>;
    if constexpr (std::is_void_v<Answer>) {
      run([&](Session& session) { ask(session); });
    } else {
      std::optional<Answer> answer;
      run([&](Session& session) { answer.emplace(ask(session)); });
      return *std::move(answer);
    }
  }
};

}  // namespace ossilar::store::postgresql
