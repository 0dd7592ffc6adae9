// What a check found as a document, and which kinds of findings were asked for: what the shell's `check`
// (cli/check.cc), which may have no wiki to open, shares with the tool of the same operation.
//
// Thread-safety: no state, any thread may call. None fails.
#pragma once

#include <cstddef>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/check/wiki_check.h"

namespace ossilar::operations {

// `strict`, `only` and `ignore` of the arguments.
workers::wiki::CheckOptions check_options(const Map& arguments);

// The first `most` findings as a list.
Map finding_list(const std::vector<workers::wiki::Finding>& findings, std::size_t most);

}  // namespace ossilar::operations
