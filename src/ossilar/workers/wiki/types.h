// The records that the stages of a save and its host hand to each other, and the table of page types.
// Most of workers/wiki includes it; it depends on utils alone.
//
// Threads: plain values. The page types are made once and never change; find_page_type() may be called from
// any thread.
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

// What an agent gets back: what was saved, or a refusal with `error` as its first key. Keys keep their order.
using Answer = Map;

using StringSet = std::set<std::string, std::less<>>;

// A diagram: its caption and its Mermaid text.
using Diagram = std::pair<std::string, std::string>;

// What a kind of page is for, and what a good one has.
struct PageType {
  std::string name;  // as in PagePlan::type
  bool unit =
      false;  // describes sources of its own and gives a digest; a synthesis page describes other pages
  std::string purpose;  // one sentence, shown to the page's author
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
  int level = 0;       // without a parent 1 for a module and 0 for any other; else one more than the parent's
  std::string type;    // the name of a PageType: "overview", "architecture", "module", "topic"
  std::string parent;  // the page id of the page above, "" at the top
  std::vector<std::string> children;  // page ids
  std::vector<std::string> source_files;
  std::vector<std::string> related_pages;  // page ids
  std::vector<Map> symbols;
  std::string steering;  // what the configuration says about writing this page

  // The source files as the row keeps them: sorted, each once, whatever their order in the plan.
  std::vector<std::string> stored_source_files() const;

  bool operator==(const PagePlan&) const = default;
};

// What index and manifest are told beside the rows.
struct WikiBuildResult {
  std::string git_commit;
  std::int64_t files_covered = 0;
  Map lint;
};

// The write lock cannot be had in time. A save catches it, and its message becomes the `error` of the answer.
// C++ reserves names of this form; pipeline and host know the signal by it, and no other reason keeps it.
class _WikiBusy : public utils::Error {
 public:
  explicit _WikiBusy(const std::string& message, utils::Place place = utils::Place::current())
      : Error(message, place) {}
};

// Gives `plan` the source files that its grounding found, but only if it was planned with none.
void backfill_source_files(PagePlan& plan, const std::vector<std::string>& files);

// The page type that plan.type names; "topic", which asks for least, when no type has that name.
const PageType& plan_type(const PagePlan& plan);

// Whether the page has a digest, which tells the pages that build on it: a unit page without children. False
// for null, a page that is not planned.
bool gives_digest(const PagePlan* plan);

// The page type of this name, or null.
const PageType* find_page_type(std::string_view name);

// What the row's `parent_section` holds: the id of the page's parent, or "" at the top.
std::string section_of(const PagePlan& plan);

}  // namespace ossilar::workers::wiki
