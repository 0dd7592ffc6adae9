// Parts of a flat folder that is too large for one page, told by the names in it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

// What stays together: a file, or a small folder with all below it.
struct Item {
  std::string name;  // as a reader knows it, without an ending
  std::int64_t weight = 0;
  std::vector<const source::SourceFile*> files;
  std::string written = {};  // the name before it was made lower case; group_by_name() sets it
};

struct NameGroup {
  std::string label;  // "parser*", "a–m"
  std::string slug;   // "parser", "a-m"
  std::vector<Item> items;
};

struct GroupedItems {
  std::vector<NameGroup>
      groups;              // those that share the beginning of their names first, then alphabetical ranges
  std::vector<Item> rest;  // too little to be a group; at most `reach` together
};

// Splits `items` into groups that weigh `reach` or less where their names allow it, and at least `least`. The
// bounds of a range depend on no other file than those in it, so that a new file moves few others to another
// group.
GroupedItems group_by_name(std::vector<Item> items, std::int64_t reach, std::int64_t least);

std::int64_t total_weight(const std::vector<Item>& items);

}  // namespace ossilar::workers::wiki
