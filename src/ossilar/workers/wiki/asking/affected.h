// Which pages rest on what a change touches, before it is merged: `ossilar affected`. The rules by which
// lines are followed are those of citing/follow.h; here both sides of the change are looked at with them.
//
// Thread-safety: any thread may call. Nothing is written. Failures: utils::ConfigError for a revision that is
// none, utils::Error for a repository or a page that cannot be read; utils::Cancelled passes.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ossilar/source/change.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/asking/placed_claims.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

struct AffectedClaim {
  PlacedClaim claim;
  CitationState state = CitationState::unknown;  // after the change: moved, changed, gone or ambiguous
  std::optional<Citation> now;                   // after the change, as in Doubt
};

struct AffectedPage {
  std::string page_id;
  std::string title;
  // What the change makes of a page that was true before: stale, moved, or drifted if it cites nothing of it.
  PageCondition condition = PageCondition::drifted;
  std::vector<AffectedClaim> claims;
  std::vector<std::string> sources;  // of a drifted page: its changed files
};

// The stored pages of this branch that rest on the change, those that it makes stale first, then in the order
// of their ids. A claim counts when the change moves it or alters what it cites; one that was in doubt before
// and stays as it was does not.
std::vector<AffectedPage> affected_pages(Wiki& wiki, const source::Comparison& compared,
                                         const utils::Task& task);

}  // namespace ossilar::workers::wiki
