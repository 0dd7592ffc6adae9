// How operations describe citations in doubt, and other claims by the same keys.
//
// Thread-safety: no state, any thread may call. None fails.
#pragma once

#include <cstddef>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/citing/page_state.h"

namespace ossilar::operations {

// One of them.
Map doubt_map(const workers::wiki::Doubt& doubt);

// The first `most` of them as a list.
Map doubt_list(const std::vector<workers::wiki::Doubt>& doubts, std::size_t most);

// The JSON Schema of one of the list.
Map doubt_schema();

// That of a doubt with `sentence` and `line` of the claim.
Map claim_schema();

}  // namespace ossilar::operations
