// Who cites a file, or lines of it: `ossilar cites`.
//
// Thread-safety: any thread may call. Nothing is written. Failures: as of affected.h.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/asking/placed_claims.h"
#include "ossilar/workers/wiki/citing/follow.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

struct CitingClaim {
  std::string page_id;
  std::string title;
  PlacedClaim claim;
  CitationState state = CitationState::unknown;
  std::optional<Citation> now;  // where the text is; none if nobody can say
};

// The claims of stored pages about the file or folder `path`, or about its lines `range` as they are now, in
// the order of pages and claims. A claim whose text moved counts where the text is; one of which nobody knows
// that, where it says that it is.
std::vector<CitingClaim> citing_claims(Wiki& wiki, const std::string& path, std::optional<LineRange> range,
                                       const utils::Task& task);

}  // namespace ossilar::workers::wiki
