#include "ossilar/workers/wiki/types.h"

#include <algorithm>
#include <array>

namespace ossilar::workers::wiki {
namespace {

// Budgets: a module page should be read in some five minutes (about 200 words a minute), a page about the
// whole repository in eight.
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
