#include "ossilar/workers/wiki/plan/grouping/communities.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace ossilar::workers::wiki {
namespace {

using Found = std::vector<std::vector<std::size_t>>;

constexpr CommunitySizes kAnySize{.least = 0, .most = 1000};

std::vector<Tie> joined(std::vector<Tie> ties, const std::vector<Tie>& more) {
  ties.insert(ties.end(), more.begin(), more.end());
  return ties;
}

// Every node from `first` to `last` tied to every other.
std::vector<Tie> clique(std::size_t first, std::size_t last, std::int64_t strength) {
  std::vector<Tie> ties;
  for (std::size_t a = first; a <= last; ++a) {
    for (std::size_t b = a + 1; b <= last; ++b) ties.push_back({a, b, strength});
  }
  return ties;
}

TEST(Communities, AreTiedMoreCloselyThanByChance) {
  const std::vector<Tie> two = joined(joined(clique(0, 3, 10), clique(4, 7, 10)), {{3, 4, 10}});
  struct Row {
    const char* why;
    std::vector<std::int64_t> weights;
    std::vector<Tie> ties;
    CommunitySizes sizes;
    Found communities;
  };
  const std::vector<std::int64_t> eight(8, 1);
  const std::vector<Row> rows = {
      {"no nodes", {}, {}, kAnySize, {}},
      {"nothing ties them", {1, 1}, {}, kAnySize, {{0}, {1}}},
      {"two cliques with a bridge", eight, two, kAnySize, {{0, 1, 2, 3}, {4, 5, 6, 7}}},
      {"none becomes too heavy", eight, two, {.least = 0, .most = 2}, {{0, 1}, {2, 3}, {4, 7}, {5, 6}}},
      {"a node that is too heavy stays alone",
       {9, 1, 1},
       clique(0, 2, 1),
       {.least = 0, .most = 2},
       {{0}, {1, 2}}},
      {"a light one goes where it is tied, even if that is less than chance",
       {5, 5, 5, 1},
       joined(clique(0, 2, 10), {{2, 3, 1}}),
       {.least = 2, .most = 1000},
       {{0, 1, 2, 3}}},
      {"repeated ties add up",
       {1, 1, 1, 1},
       {{0, 1, 1}, {0, 3, 2}, {1, 2, 1}, {2, 1, 1}, {1, 2, 1}},
       kAnySize,
       {{0, 3}, {1, 2}}},
  };
  for (const Row& row : rows)
    EXPECT_EQ(communities(row.weights, row.ties, row.sizes), row.communities) << row.why;
}

TEST(Communities, DoNotDependOnTheOrderOfTheTies) {
  std::vector<Tie> ties = joined(joined(clique(0, 4, 3), clique(5, 9, 3)), {{1, 7, 3}, {2, 8, 3}, {0, 9, 1}});
  const std::vector<std::int64_t> weights(10, 1);
  const Found found = communities(weights, ties, {.least = 0, .most = 4});
  std::reverse(ties.begin(), ties.end());
  for (Tie& tie : ties) std::swap(tie.a, tie.b);
  EXPECT_EQ(communities(weights, ties, {.least = 0, .most = 4}), found);
}

// What a page's author is promised: a file more, somewhere else, changes no other page.
TEST(Communities, ANewNodeLeavesThoseFarFromItAsTheyAre) {
  const std::vector<Tie> ties = joined(clique(0, 4, 3), clique(5, 9, 3));
  const Found before = communities(std::vector<std::int64_t>(10, 1), ties, {.least = 0, .most = 3});
  Found after =
      communities(std::vector<std::int64_t>(11, 1), joined(ties, {{9, 10, 50}}), {.least = 0, .most = 3});
  const auto is_near = [](const std::vector<std::size_t>& nodes) { return nodes.front() >= 5; };
  std::erase_if(after, is_near);
  EXPECT_EQ(after.size(), 2U);
  for (const auto& nodes : after) EXPECT_THAT(before, ::testing::Contains(nodes));
}

}  // namespace
}  // namespace ossilar::workers::wiki
