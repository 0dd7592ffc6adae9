// The page types are a table in code and not in the configuration: plans, lint and digests know them by name.
#include "ossilar/workers/wiki/types.h"

#include <algorithm>
#include <array>

namespace ossilar::workers::wiki {
namespace {

// Budgets of prose: at 200 words a minute, 1200 words are read in six minutes and 1600 in eight. The larger
// ones are for pages that span modules. The lower ends are a few paragraphs, some for each required section.
//
// A static in a function: made at the first call, by one thread, whichever file is initialised first.
const std::array<PageType, 4>& page_types() {
  static const std::array<PageType, 4> types{{
      {"overview",
       false,
       "Tells a newcomer what the repository is for, what it offers and where to begin.",
       {"Purpose", "Getting started"},
       120,
       1200},
      {"architecture",
       false,
       "Tells how the parts fit together: responsibilities, dependencies, data and control flow.",
       {"Components", "How it fits together"},
       150,
       1600},
      {"module",
       true,
       "Explains one module: what it is responsible for, how it works and how it is used.",
       {"Responsibility", "How it works"},
       100,
       1200},
      {"topic", false, "Explains one subject that runs across modules.", {}, 80, 1600},
  }};
  return types;
}

}  // namespace

std::vector<std::string> PagePlan::stored_source_files() const {
  const StringSet unique(source_files.begin(), source_files.end());
  return {unique.begin(), unique.end()};
}

// Files that the plan gives a page always win over those that it borrows for its grounding.
void backfill_source_files(PagePlan& plan, const std::vector<std::string>& files) {
  if (plan.source_files.empty()) plan.source_files = files;
}

const PageType* find_page_type(std::string_view name) {
  const auto& types = page_types();
  const auto* const found =
      std::find_if(types.begin(), types.end(), [&](const PageType& type) { return type.name == name; });
  return found == types.end() ? nullptr : found;
}

const PageType& plan_type(const PagePlan& plan) {
  const PageType* type = find_page_type(plan.type);
  return type != nullptr ? *type : *find_page_type("topic");
}

std::string section_of(const PagePlan& plan) { return plan.parent; }

bool gives_digest(const PagePlan* plan) {
  return plan != nullptr && plan_type(*plan).unit && plan->children.empty();
}

}  // namespace ossilar::workers::wiki
