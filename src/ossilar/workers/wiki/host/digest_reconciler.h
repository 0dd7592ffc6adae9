// Bringing the digests in line with the plan and the stored rows.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Thread-safety: none; it belongs to the holder of the write lock.
class DigestReconciler {
 public:
  // `digests` without those of pages that have no row in `existing` or give none by the plan. As long as the
  // plan is the same, only the digests that changed since the last time are looked at.
  store::PageDigests reconciled(const Plans& plans, const store::StoredRows& existing,
                                store::PageDigests digests);

 private:
  Plans plans_;
  store::PageDigests last_;
};

// The stale marks, page id to reason, of pages that build on what changed: dependents by page id, each with
// the ids that it builds on.
std::map<std::string, std::string> stale_reasons(
    const std::map<std::string, std::vector<std::string>>& dependents);

}  // namespace ossilar::workers::wiki
