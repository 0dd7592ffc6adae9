// Fitting the digests to the plan and the stored rows, and wording the stale marks that a changed digest
// causes. The commit of a save (orchestrator.cc) does both; check/adoption.cc only marks.
// Nothing here writes: the caller stores the result.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Thread-safety: none; it belongs to the holder of the write lock, see Wiki::digest_reconciler().
class DigestReconciler {
 public:
  // `digests` without those of pages that have no row in `existing`, or that give no digest by the plan.
  //
  // While the plan is the same (Plans::same_records()), only digests that changed since the previous call are
  // looked at. So a row that is removed without its digest is not noticed here; `ossilar check` reports it.
  store::PageDigests reconciled(const Plans& plans, const store::StoredRows& existing,
                                store::PageDigests digests);

 private:
  Plans plans_;              // of the previous call
  store::PageDigests last_;  // its result
};

// The stale marks, page id to reason. `dependents` are the pages that build on what changed, each with the
// ids of the changed pages that it builds on.
std::map<std::string, std::string> stale_reasons(
    const std::map<std::string, std::vector<std::string>>& dependents);

}  // namespace ossilar::workers::wiki
