// Folders with code of other projects, told by a licence of their own.
//
// Thread-safety: no state is kept. It does not fail.
#pragma once

#include <string>
#include <unordered_set>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

// The paths of folders that hold a licence of which the root has no copy, and that are bundled by all other
// signs: what lies below one is a tenth of the repository's files at most and imports nothing from outside
// it, and less than half of the folders beside it have a licence too, as the packages of a workspace do.
std::unordered_set<std::string> folders_licensed_apart(const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
