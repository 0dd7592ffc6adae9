// Divides a flat folder that is too large for one page by the names in it. tree_cutter.cc makes a page of
// each group.
//
// Thread-safety: no state is kept, so any thread may call these. Weights are those of folder_tree.h.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

// What is never divided: a file, or a small folder with all below it.
struct Item {
  std::string name;  // of the file or folder, without an ending; x.c and x.h have one name
  std::int64_t weight = 0;
  std::vector<const source::SourceFile*> files;
  std::string written = {};  // the name before it was made lower case; group_by_name() sets it
};

struct NameGroup {
  std::string label;  // "parser*", "a–m"
  std::string slug;   // "parser", "a-m": the same for a page id, still to be made valid by slug_of()
  std::vector<Item> items;
};

struct GroupedItems {
  std::vector<NameGroup> groups;  // those with a first word in common, then alphabetical ranges
  std::vector<Item> rest;         // what is too little to be a group; at most `reach` together
};

// Divides `items`, in any order, into groups that weigh `reach` or less where their names allow it; a group
// with a first word in common may weigh twice that. What weighs less than `least` goes to the rest, until
// that is full. Every item is in one group or in the rest.
//
// The bounds of a range depend on no files but those in it, so a new file moves few others to another group:
// a page that is given a further file becomes stale.
GroupedItems group_by_name(std::vector<Item> items, std::int64_t reach, std::int64_t least);

std::int64_t total_weight(const std::vector<Item>& items);

}  // namespace ossilar::workers::wiki
