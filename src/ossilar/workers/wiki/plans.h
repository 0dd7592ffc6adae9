// The plans of all pages of a wiki, as drafts share and change them. The host makes them
// (host/plan_maker.cc); saves, grounding, diagrams, the title index and checks read them.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <map>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The plans of all pages of a wiki, in order.
//
// A wiki has many pages and a save changes the plan of one. So instances share the derived records, which
// never change, and own() copies one record before it is changed. A copy of an instance shares the records
// that were its own by then, so a change through one shows in both.
//
// Thread-safety: like a value. Any number of instances over the same derived records may be used on any
// threads; copies that share an owned record belong to one thread while that record is changed.
class Plans {
 public:
  Plans() : Plans(std::vector<PagePlan>{}) {}
  explicit Plans(std::vector<PagePlan> pages);
  Plans(std::initializer_list<PagePlan> pages) : Plans(std::vector<PagePlan>(pages)) {}

  std::size_t size() const { return derived_->pages.size(); }
  bool empty() const { return size() == 0; }
  const PagePlan& operator[](std::size_t index) const;  // `index` is below size()

  // Whether both share the same derived records: then a cache made for the one still fits the other. Owned
  // records are not compared.
  bool same_records(const Plans& other) const { return derived_ == other.derived_; }

  // The indices of the pages that may build on pages anywhere in the wiki: overview, architecture and topics.
  const std::vector<std::size_t>& syntheses() const { return derived_->syntheses; }

  // The first plan with this page id, or null. Valid as long as this instance or a later copy of it lives.
  const PagePlan* find(std::string_view page_id) const;

  // The first plan with this page id as a record of this instance's own, to be changed in place; find() and
  // [] show the change. Asked again, it gives the same record. Null when no plan has the id.
  std::shared_ptr<PagePlan> own(std::string_view page_id);

 private:
  struct Derived {
    std::vector<PagePlan> pages;
    std::unordered_map<std::string_view, std::size_t> first_by_id;  // the keys point into `pages`
    std::vector<std::size_t> syntheses;
  };
  std::shared_ptr<const Derived> derived_;
  std::map<std::size_t, std::shared_ptr<PagePlan>> owned_;
};

}  // namespace ossilar::workers::wiki
