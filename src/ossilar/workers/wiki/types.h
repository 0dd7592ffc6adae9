// The records that the stages of a save and the host hand to each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
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

// Whether pages above this one are told of it by a digest: a unit page without children. Null, for a page
// that no plan has, gives none.
bool gives_digest(const PagePlan* plan);

// The page type of this name, or null.
const PageType* find_page_type(std::string_view name);

// The page id of the section that the page stands in: its parent, or "" at the top.
std::string section_of(const PagePlan& plan);

}  // namespace ossilar::workers::wiki
