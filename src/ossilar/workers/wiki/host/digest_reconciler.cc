// Looking up every digest in plan and rows would make each save cost the whole wiki. Snapshots share what did
// not change, so only the digests that differ from the previous result are looked up. Those of the previous
// result passed under the same plan; under another plan `known` is empty and every digest is looked up again.
#include "ossilar/workers/wiki/host/digest_reconciler.h"

#include <string>
#include <vector>

#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {

store::PageDigests DigestReconciler::reconciled(const Plans& plans, const store::StoredRows& existing,
                                                store::PageDigests digests) {
  const store::PageDigests known = plans.same_records(plans_) ? last_ : store::PageDigests();
  std::vector<std::string> dropped;
  for_each_difference(known, digests, [&](const std::string& page_id, const Map*, const Map* now) {
    const bool belongs = gives_digest(plans.find(page_id)) && existing.find(page_id) != nullptr;
    if (now != nullptr && !belongs) dropped.push_back(page_id);
  });
  // Not erased in the pass above: it goes through the entries of `digests` itself.
  for (const std::string& page_id : dropped) digests.erase(page_id);
  last_ = digests;
  plans_ = plans;
  return digests;
}

std::map<std::string, std::string> stale_reasons(
    const std::map<std::string, std::vector<std::string>>& dependents) {
  std::map<std::string, std::string> reasons;
  for (const auto& [page_id, causes] : dependents) {
    reasons[page_id] = "pages it builds on changed: " + utils::join(causes, ", ");
  }
  return reasons;
}

}  // namespace ossilar::workers::wiki
