// A store that calls a hook before each write of a save, and after each read of the rows.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "ossilar/store/forwarding_store.h"

namespace ossilar::testing {

// Gets the operation's name. What it throws makes the operation fail.
using StoreHook = std::function<void(const std::string& operation)>;

template <class Base>
class Hooked : public Base {
 public:
  template <class Target>
  Hooked(Target&& target, StoreHook hook) : Base(std::forward<Target>(target)), hook_(std::move(hook)) {}

  std::int64_t upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                const std::string& title, const store::PageFields& fields) override {
    hook_("upsert_wiki_page");
    return Base::upsert_wiki_page(branch, page_id, title, fields);
  }
  store::StoredRows get_wiki_pages(const std::string& branch) override {
    auto rows = Base::get_wiki_pages(branch);
    hook_("get_wiki_pages");  // after: what was read is held by now
    return rows;
  }
  void store_chunks(std::int64_t key, const std::vector<Map>& chunks,
                    const store::PassageHashes& shared) override {
    hook_("store_chunks");
    Base::store_chunks(key, chunks, shared);
  }
  void persist_digests(const std::string& branch, const store::PageDigests& digests,
                       const std::map<std::string, std::string>& stale) override {
    hook_("persist_digests");
    Base::persist_digests(branch, digests, stale);
  }
  void mark_stale(const std::string& branch, const std::map<std::string, std::string>& reasons) override {
    hook_("mark_stale");
    Base::mark_stale(branch, reasons);
  }
  void upsert_wiki_state(const std::string& branch, const store::WikiStateFields& fields) override {
    hook_("upsert_wiki_state");
    Base::upsert_wiki_state(branch, fields);
  }

 protected:
  const StoreHook& hook() const { return hook_; }

 private:
  const StoreHook hook_;
};

class HookedTransaction final : public Hooked<store::ForwardingTransaction> {
 public:
  using Hooked::Hooked;
  void commit() override {
    hook()("commit");
    Hooked::commit();
  }
};

class HookedStore final : public Hooked<store::ForwardingStore> {
 public:
  using Hooked::Hooked;
  std::unique_ptr<store::StoreTransaction> begin(const std::string& attempt) override {
    return std::make_unique<HookedTransaction>(Hooked::begin(attempt), hook());
  }
};

}  // namespace ossilar::testing
