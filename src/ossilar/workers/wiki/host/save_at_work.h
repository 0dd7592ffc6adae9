// What one save has read and settled so far. It belongs to the WikiGenerator of that save, and to its thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/host/planned_wiki.h"
#include "ossilar/workers/wiki/host/title_index.h"
#include "ossilar/workers/wiki/pages/page_version.h"
#include "ossilar/workers/wiki/plans.h"

namespace ossilar::workers::wiki {

// What a draft is made from: one snapshot of the plan, of the rows and of the titles that both give.
struct DraftBasis {
  std::shared_ptr<const PlannedWiki> planned;
  store::StoredRows rows;
  TitleIndex titles;
};

// Begun anew by each draft of the save.
struct DraftAtWork {
  std::string page_id;
  std::optional<std::string> title;  // as the save asked for it
  DraftBasis basis;
  StandingPage standing;    // the page file that the draft is made from
  bool is_spliced = false;  // one of its sections is replaced, and the others stay
  std::string version;      // that the draft gives the page
};

// Under the write lock.
struct CommitAtWork {
  // Null before the page file is written, and again once the rows are on disk.
  std::unique_ptr<store::StoreTransaction> transaction;
  std::optional<store::StoredRows> rows;  // once the commit has read them
  Plans reconciled_plans;                 // that the digests were last brought in line with
  store::PageDigests digests;
};

}  // namespace ossilar::workers::wiki
