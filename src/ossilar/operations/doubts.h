// How operations describe citations in doubt. list_pages.cc and sync.cc do.
//
// Thread-safety: no state, any thread may call. None fails.
#pragma once

#include <cstddef>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/citing/page_state.h"

namespace ossilar::operations {

// The first `most` of them as a list.
Map doubt_list(const std::vector<workers::wiki::Doubt>& doubts, std::size_t most);

// The JSON Schema of one of the list.
Map doubt_schema();

}  // namespace ossilar::operations
