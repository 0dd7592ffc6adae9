// The order of the pages of a plan. tree_cutter.cc asks, once it has all of them.
//
// Thread-safety: no state is kept. It does not fail.
#pragma once

#include <vector>

#include "ossilar/workers/wiki/plan/tree_cutter.h"

namespace ossilar::workers::wiki {

// Each draft after the one above it, and those beside each other as a reader asks for them: code where
// programs begin and what is offered to others, other code, what serves its upkeep, tests and the like,
// bundled code; of equals in the order of `drafts`.
std::vector<Draft> in_order(std::vector<Draft> drafts);

}  // namespace ossilar::workers::wiki
