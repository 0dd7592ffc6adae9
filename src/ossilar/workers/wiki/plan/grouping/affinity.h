// How closely the files of a folder belong together, told by what they include, by their names and by the
// names of their symbols. item_groups.cc looks for communities among them.
//
// Thread-safety: no state is kept, so any thread may call it. It does not fail.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/plan/grouping/communities.h"

namespace ossilar::workers::wiki {

// What is never divided: files of one name, such as x.c and x.h, or a small folder with all below it.
struct Item {
  std::string name;  // of the file or folder, as written, without an ending
  std::int64_t weight = 0;
  std::vector<const source::SourceFile*> files;
};

// Which item includes or imports which, as places in a list of items. In any order, with repetitions.
using ItemLinks = std::vector<std::pair<std::size_t, std::size_t>>;

// The ties between `items`, which are in the order of their names. What few items have in common ties them
// closely, what many share says nothing: a header that all include, the project's prefix.
std::vector<Tie> affinity(const std::vector<Item>& items, ItemLinks links);

}  // namespace ossilar::workers::wiki
