// Copying all plans for each draft would be simpler, and cost a large wiki thousands of records for one
// changed title. With copy on write a draft copies one record; all others are shared and const.
//
// Ids and synthesis pages are indexed once, when the plan is derived: every save asks for them.
#include "ossilar/workers/wiki/plans.h"

#include <utility>

namespace ossilar::workers::wiki {

Plans::Plans(std::vector<PagePlan> pages) {
  auto derived = std::make_shared<Derived>();
  derived->pages = std::move(pages);
  for (std::size_t i = 0; i < derived->pages.size(); ++i) {
    const PagePlan& plan = derived->pages[i];
    derived->first_by_id.try_emplace(plan.page_id, i);  // of two with the same id, the first stays
    if (plan.type == "overview" || plan.type == "architecture" || plan.type == "topic")
      derived->syntheses.push_back(i);
  }
  derived_ = std::move(derived);
}

const PagePlan& Plans::operator[](std::size_t index) const {
  const auto owned = owned_.find(index);
  return owned == owned_.end() ? derived_->pages[index] : *owned->second;
}

const PagePlan* Plans::find(std::string_view page_id) const {
  const auto found = derived_->first_by_id.find(page_id);
  return found == derived_->first_by_id.end() ? nullptr : &(*this)[found->second];
}

std::shared_ptr<PagePlan> Plans::own(std::string_view page_id) {
  const auto found = derived_->first_by_id.find(page_id);
  if (found == derived_->first_by_id.end()) return nullptr;
  auto& record = owned_[found->second];
  if (!record) record = std::make_shared<PagePlan>(derived_->pages[found->second]);
  return record;
}

}  // namespace ossilar::workers::wiki
