// A store, and a transaction, that forward every call to another one. A test that derives from them injects a
// fault, or counts or records calls, by overriding one function (tests/support/hooked_store.h). It lies
// beside the interface, as a function that is added there must be added here too; without it the tests do not
// compile.
//
//   class FailsOnUpsert final : public ForwardingTransaction {
//     using ForwardingTransaction::ForwardingTransaction;
//     std::int64_t upsert_wiki_page(...) override { throw StorageError("disk full"); }
//   };
#pragma once

#include <memory>
#include <utility>

#include "ossilar/store/repository.h"

namespace ossilar::store {

// `Interface` is WikiStore or StoreTransaction: a template, as both have the same functions and a class for
// each would repeat them.
//
// Thread-safety: that of the target. Lifetime: the target must outlive it.
template <class Interface>
class Forwarding : public Interface {
 public:
  explicit Forwarding(Interface& target) : target_(target) {}

  std::int64_t upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                const std::string& title, const PageFields& fields) override {
    return target_.upsert_wiki_page(branch, page_id, title, fields);
  }
  void upsert_wiki_state(const std::string& branch, const WikiStateFields& fields) override {
    target_.upsert_wiki_state(branch, fields);
  }
  StoredRows get_wiki_pages(const std::string& branch) override { return target_.get_wiki_pages(branch); }
  std::unique_ptr<StoreTransaction> begin(const std::string& attempt) override {
    return target_.begin(attempt);
  }
  std::optional<std::string> damage() override { return target_.damage(); }
  std::int64_t upsert_keeping_mark(const std::string& branch, const std::string& page_id,
                                   const std::string& title, const PageFields& fields) override {
    return target_.upsert_keeping_mark(branch, page_id, title, fields);
  }
  void restate_page(const std::string& branch, const std::string& page_id, const std::string& content_hash,
                    const std::vector<Map>& citations) override {
    target_.restate_page(branch, page_id, content_hash, citations);
  }
  std::optional<std::int64_t> page_key(const std::string& branch, const std::string& page_id) override {
    return target_.page_key(branch, page_id);
  }
  std::optional<std::string> build_cache(const std::string& branch, const std::string& page_id) override {
    return target_.build_cache(branch, page_id);
  }
  StoredRows pages_resting_on(const std::string& branch, const std::set<std::string>& paths) override {
    return target_.pages_resting_on(branch, paths);
  }
  void remove_page(const std::string& branch, const std::string& page_id) override {
    target_.remove_page(branch, page_id);
  }
  SharedPassages shared_passages(const std::string& branch, const std::string& page_id,
                                 const std::string& model) override {
    return target_.shared_passages(branch, page_id, model);
  }
  std::map<std::string, Vector> vectors(const std::string& model,
                                        const std::vector<std::string>& hashes) override {
    return target_.vectors(model, hashes);
  }
  void store_chunks(std::int64_t page_key, const std::vector<Map>& chunks,
                    const PassageHashes& shared_before) override {
    target_.store_chunks(page_key, chunks, shared_before);
  }
  void index_waiting_words(std::size_t most_left) override { target_.index_waiting_words(most_left); }
  std::vector<Map> chunks(const std::string& branch, const std::string& page_id) override {
    return target_.chunks(branch, page_id);
  }
  std::optional<std::string> other_model(const std::string& model) override {
    return target_.other_model(model);
  }
  std::size_t count_without_vector(const std::string& model) override {
    return target_.count_without_vector(model);
  }
  std::vector<PassageText> passages_without_vector(const std::string& model, const std::string& after,
                                                   std::size_t limit) override {
    return target_.passages_without_vector(model, after, limit);
  }
  void add_vectors(const std::string& model, const std::map<std::string, Vector>& vectors) override {
    target_.add_vectors(model, vectors);
  }
  bool keep_model(const std::string& model) override { return target_.keep_model(model); }
  std::vector<FoundPassage> match_words(const std::string& branch, const std::string& words,
                                        const PassageFilter& filter, std::size_t limit) override {
    return target_.match_words(branch, words, filter, limit);
  }
  std::vector<FoundPassage> nearest(const std::string& branch, const std::string& model, const Vector& query,
                                    const PassageFilter& filter, std::size_t limit) override {
    return target_.nearest(branch, model, query, filter, limit);
  }
  PageDigests load_digests(const std::string& branch) override { return target_.load_digests(branch); }
  void persist_digests(const std::string& branch, const PageDigests& digests,
                       const std::map<std::string, std::string>& stale) override {
    target_.persist_digests(branch, digests, stale);
  }
  void mark_stale(const std::string& branch, const std::map<std::string, std::string>& reasons) override {
    target_.mark_stale(branch, reasons);
  }
  std::map<std::string, std::string> stale_marks(const std::string& branch) override {
    return target_.stale_marks(branch);
  }
  void keep_cited_texts(std::int64_t page_key, const std::set<std::string>& cited,
                        const std::map<std::string, std::string>& texts) override {
    target_.keep_cited_texts(page_key, cited, texts);
  }
  std::optional<std::string> cited_text(const std::string& hash) override { return target_.cited_text(hash); }
  void keep_versions(const std::string& branch, const std::string& page_id,
                     const std::vector<PageVersion>& versions, std::size_t most) override {
    target_.keep_versions(branch, page_id, versions, most);
  }
  std::vector<PageVersion> page_versions(const std::string& branch, const std::string& page_id) override {
    return target_.page_versions(branch, page_id);
  }
  std::optional<std::string> version_text(const std::string& branch, const std::string& page_id,
                                          std::int64_t number) override {
    return target_.version_text(branch, page_id, number);
  }
  std::map<std::string, std::string> newest_texts(const std::string& branch,
                                                  const std::vector<std::string>& page_ids) override {
    return target_.newest_texts(branch, page_ids);
  }
  void move_versions(const std::string& branch, const std::string& from, const std::string& to) override {
    target_.move_versions(branch, from, to);
  }
  PageClaim claim_page(const std::string& branch, const PageClaim& claim, std::int64_t now) override {
    return target_.claim_page(branch, claim, now);
  }
  void release_page(const std::string& branch, const std::string& page_id,
                    const std::string& holder) override {
    target_.release_page(branch, page_id, holder);
  }
  std::vector<PageClaim> page_claims(const std::string& branch, std::int64_t now) override {
    return target_.page_claims(branch, now);
  }
  std::vector<std::string> branches() override { return target_.branches(); }
  std::optional<StoredPage> stored_page(const std::string& branch, const std::string& page_id) override {
    return target_.stored_page(branch, page_id);
  }
  std::set<std::string> cited_versions(std::int64_t page_key) override {
    return target_.cited_versions(page_key);
  }
  std::set<std::string> pages_with_history(const std::string& branch) override {
    return target_.pages_with_history(branch);
  }
  void replace_versions(const std::string& branch, const std::string& page_id,
                        const std::vector<PageVersion>& versions) override {
    target_.replace_versions(branch, page_id, versions);
  }
  std::optional<WikiStateFields> wiki_state(const std::string& branch) override {
    return target_.wiki_state(branch);
  }
  std::map<std::string, std::string> own_lists(const std::string& branch) override {
    return target_.own_lists(branch);
  }
  void note_own_lists(const std::string& branch, const std::map<std::string, std::string>& hashes) override {
    target_.note_own_lists(branch, hashes);
  }
  void source_records(const WikiStore::TakeRecord& take) override { target_.source_records(take); }
  void update_source_records(const std::map<std::string, std::optional<std::string>>& changes) override {
    target_.update_source_records(changes);
  }

 private:
  Interface& target_;
};

// begin() gives the target's own transaction, not a forwarding one: override it to see writes within
// transactions.
class ForwardingStore : public Forwarding<WikiStore> {
 public:
  using Forwarding::Forwarding;
};

// Owns its target, as begin() hands out an owner. The base takes its reference first; moving the pointer
// afterwards does not move the object.
class ForwardingTransaction : public Forwarding<StoreTransaction> {
 public:
  explicit ForwardingTransaction(std::unique_ptr<StoreTransaction> target)
      : Forwarding(*target), owned_(std::move(target)) {}
  void commit() override { owned_->commit(); }

 private:
  const std::unique_ptr<StoreTransaction> owned_;
};

}  // namespace ossilar::store
