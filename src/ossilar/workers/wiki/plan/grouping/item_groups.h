// Divides what lies in a large folder into groups, a page each. tree_cutter.cc asks.
//
// Thread-safety: no state is kept, so any thread may call it. It does not fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ossilar/workers/wiki/plan/grouping/affinity.h"
#include "ossilar/workers/wiki/plan/grouping/group_names.h"

namespace ossilar::workers::wiki {

struct ItemGroup {
  GroupName name;
  std::vector<Item> items;
};

struct GroupedItems {
  std::vector<Item> home;         // what stays on the folder's own page, in order of the names
  std::vector<ItemGroup> groups;  // in the order of their first names
};

// So many files in one folder are a collection, of which nobody drew a plan; and their ties would take longer
// to find than the rest of a plan. They are divided by the alphabet.
inline constexpr std::size_t kMostTied = 1000;

// Divides `items`, which are in the order of their names, each name once; `entry` is the place of the one
// that stays at home with what is closest to it. A group weighs `sizes.most` or less, unless it is a single
// item. What is tied to nothing, or too little for a group, goes home while there is room.
GroupedItems group_items(std::vector<Item> items, ItemLinks links, std::size_t entry,
                         const CommunitySizes& sizes);

std::int64_t total_weight(const std::vector<Item>& items);

}  // namespace ossilar::workers::wiki
