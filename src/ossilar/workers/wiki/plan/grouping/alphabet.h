// Divides items by the alphabet: the last resort, for files that nothing ties to each other, neither includes
// nor names nor symbols.
//
// Thread-safety: no state is kept, so any thread may call it. It does not fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ossilar/workers/wiki/plan/grouping/group_names.h"

namespace ossilar::workers::wiki {

struct AlphabetRange {
  GroupName name;  // "a–m" and "a-m"; a single item's own name
  std::vector<std::size_t> places;
};

// The items at `places`, which are in order, in ranges that weigh `most` or less where their names allow it.
//
// The bounds of a range depend on no items but those in it, so a new file moves few others to another page.
std::vector<AlphabetRange> alphabet_ranges(const std::vector<Item>& items,
                                           const std::vector<std::size_t>& places, std::int64_t most);

}  // namespace ossilar::workers::wiki
