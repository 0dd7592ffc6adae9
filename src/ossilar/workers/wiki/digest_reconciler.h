// Bringing the digests in line with the plan and the stored rows.
#pragma once

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Whether the plan has the page give a digest. Null: no plan has the page.
bool gives_digest(const PagePlan* plan);

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

}  // namespace ossilar::workers::wiki
