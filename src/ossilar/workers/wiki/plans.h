// The plans of all pages of a wiki.
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
// A wiki has many pages and a save changes the plan of one, so instances share the derived records and copy
// one only when it is asked for to be changed. Copies of an instance share the records that it had made its
// own by then.
//
// Thread-safety: like a value. Any number of instances over the same derived records may be used from any
// threads.
class Plans {
 public:
  Plans() : Plans(std::vector<PagePlan>{}) {}
  explicit Plans(std::vector<PagePlan> pages);
  Plans(std::initializer_list<PagePlan> pages) : Plans(std::vector<PagePlan>(pages)) {}

  std::size_t size() const { return derived_->pages.size(); }
  bool empty() const { return size() == 0; }
  const PagePlan& operator[](std::size_t index) const;

  // Whether both stand on the same derived records.
  bool same_records(const Plans& other) const { return derived_ == other.derived_; }

  // The indices of the pages that are about pages elsewhere in the wiki: overview, architecture and topics.
  const std::vector<std::size_t>& syntheses() const { return derived_->syntheses; }

  // The first plan with this page id, or null. Valid as long as any instance over the same records lives.
  const PagePlan* find(std::string_view page_id) const;

  // The first plan with this page id as a record that belongs to this instance and may be changed in place;
  // the change shows through this instance. Null when no plan has the id.
  std::shared_ptr<PagePlan> own(std::string_view page_id);

 private:
  struct Derived {
    std::vector<PagePlan> pages;
    std::unordered_map<std::string_view, std::size_t> first_by_id;
    std::vector<std::size_t> syntheses;
  };
  std::shared_ptr<const Derived> derived_;
  std::map<std::size_t, std::shared_ptr<PagePlan>> owned_;
};

}  // namespace ossilar::workers::wiki
