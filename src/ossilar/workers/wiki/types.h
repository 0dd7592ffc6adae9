// The records that the stages of a save and the host hand to each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ossilar/utils/error.h"
#include "ossilar/utils/json.h"

namespace ossilar::workers::wiki {

// What an agent gets back: an error with `error` as its first key, or what was saved. Keys keep their order.
using Answer = Map;

using StringSet = std::set<std::string, std::less<>>;

// A diagram: its caption and its Mermaid text.
using Diagram = std::pair<std::string, std::string>;

// What a kind of page is for and what a good one holds.
struct PageType {
  std::string name;  // as in PagePlan::type
  bool unit =
      false;  // describes sources of its own and gives a digest; a synthesis page describes other pages
  std::string purpose;  // one sentence for an author
  std::vector<std::string> required_sections;
  std::int64_t least_words = 0;  // the budget of prose words, both ends included
  std::int64_t most_words = 0;
};

// The plan of one page.
struct PagePlan {
  std::string page_id;
  std::string title;
  std::string description;
  std::string importance;  // "high", "medium" or "low"
  int level = 0;     // 0 for pages about the whole repository, 1 for top modules, 2 for modules in those, ...
  std::string type;  // the name of a PageType: "overview", "architecture", "module", "topic"
  std::string parent;                 // the page id of the page above, "" at the top
  std::vector<std::string> children;  // page ids
  std::vector<std::string> source_files;
  std::vector<std::string> related_pages;  // page ids
  std::vector<Map> symbols;
  std::string steering;  // what the configuration says about writing this page

  // The source files as the row keeps them: sorted, each once.
  std::vector<std::string> stored_source_files() const;
};

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

struct WikiBuildResult {
  std::string git_commit;
  std::int64_t files_covered = 0;
  Map lint;
};

// The write lock cannot be had; the message becomes the `error` of the save's answer.
// Host and component know this signal by this name, of a form that C++ reserves; it is kept for that reason
// alone.
class _WikiBusy : public utils::Error {
 public:
  explicit _WikiBusy(const std::string& message, utils::Place place = utils::Place::current())
      : Error(message, place) {}
};

// Gives `plan` the source files that its grounding found when it was planned with none.
void backfill_source_files(PagePlan& plan, const std::vector<std::string>& files);

// The page type that plan.type names; a name that no type has is a "topic".
const PageType& plan_type(const PagePlan& plan);

// The page type of this name, or null.
const PageType* find_page_type(std::string_view name);

// The page id of the section that the page stands in: its parent, or "" at the top.
std::string section_of(const PagePlan& plan);

}  // namespace ossilar::workers::wiki
