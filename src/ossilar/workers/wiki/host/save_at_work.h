// What one save has read and settled so far. It belongs to the WikiGenerator of that save (orchestrator.cc)
// and to its thread. Kept apart from Wiki so that no other save can replace it; each draft of the save begins
// it anew, so nothing of a lost race or a failure is carried on.
//
// DraftBasis is also made by Wiki::draft_basis(), and by check/adoption.cc for pages that are to be adopted.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/host/planned_wiki.h"
#include "ossilar/workers/wiki/host/settled_claims.h"
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
  std::optional<std::string> title;       // as the save asked for it
  std::optional<store::StoredRows> rows;  // as they were when the version was asked about
  DraftBasis basis;
  StandingPage standing;               // the page file that the draft is made from
  std::optional<std::string> section;  // the one that is replaced, while the others stay
  std::string markdown;                // of the page once it is finalized
  std::string version;                 // that the page has once the draft is committed
  std::vector<std::string> empty;      // labels whose lines are no evidence
  std::vector<std::string> unread;  // labels whose file cannot be read, so that nobody knows what they cite
  Brackets brackets;                // of the text, those of `empty` left out
  Settled settled;
  std::map<std::string, std::string> cited_texts;  // see keep_cited_texts()
};

// Filled under the write lock only.
struct CommitAtWork {
  // Null before the commit begins and again once the rows are on disk. While it is open, all reads and writes
  // of the store go through it (WikiGenerator::store()).
  std::unique_ptr<store::StoreTransaction> transaction;
  std::optional<store::StoredRows> rows;  // once the commit has read them; none during the draft
  Plans reconciled_plans;                 // the plan that the digests were last fitted to
  store::PageDigests digests;
  std::string mark;  // why the page was stale, "" if no mark said so
  std::string text;  // the page file's, once it is committed
};

}  // namespace ossilar::workers::wiki
