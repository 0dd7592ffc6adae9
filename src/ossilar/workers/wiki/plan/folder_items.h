// What lies in a large folder, made ready to be divided, and divided. tree_cutter.cc asks.
//
// Thread-safety: no state is kept. It does not fail.
#pragma once

#include <string>
#include <vector>

#include "ossilar/workers/wiki/plan/grouping/item_groups.h"

namespace ossilar::workers::wiki {

// `items` in the order of their names; those of one name, as of x.c and x.h, become one.
std::vector<Item> with_each_name_once(std::vector<Item> items);

// Takes out of `items` those whose names begin with the word "test", if they are several: in languages where
// test runners do not go by names, these are the tests beside the code.
std::vector<Item> take_tests(std::vector<Item>& items);

// Adds each of `companions` that is the test of one item by its name to that item's files, and removes it.
// Gives the other tests among them, which test several items, and removes those too.
std::vector<const source::SourceFile*> join_tests(std::vector<Item>& items,
                                                  std::vector<const source::SourceFile*>& companions);

// Divides `items` of `folder` as group_items() does, `index` being that of the repository. What stays at home
// has the file where the program or package begins, or else the largest.
GroupedItems divided(const std::string& folder, std::vector<Item> items, const CommunitySizes& sizes,
                     const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
