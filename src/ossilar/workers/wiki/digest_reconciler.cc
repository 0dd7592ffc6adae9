#include "ossilar/workers/wiki/digest_reconciler.h"

#include <string>
#include <vector>

namespace ossilar::workers::wiki {

bool gives_digest(const PagePlan* plan) {
  return plan != nullptr && plan_type(*plan).unit && plan->children.empty();
}

store::PageDigests DigestReconciler::reconciled(const Plans& plans, const store::StoredRows& existing,
                                                store::PageDigests digests) {
  const store::PageDigests known = plans.same_records(plans_) ? last_ : store::PageDigests();
  std::vector<std::string> dropped;
  for_each_difference(known, digests, [&](const std::string& page_id, const Map*, const Map* now) {
    const bool belongs = gives_digest(plans.find(page_id)) && existing.find(page_id) != nullptr;
    if (now != nullptr && !belongs) dropped.push_back(page_id);
  });
  for (const std::string& page_id : dropped) digests.erase(page_id);
  last_ = digests;
  plans_ = plans;
  return digests;
}

}  // namespace ossilar::workers::wiki
