#include "ossilar/search/ranking.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ossilar::search {
namespace {

std::string order(const std::vector<Ranking>& rankings) {
  std::string keys;
  for (const Ranked& ranked : fuse(rankings)) keys += ranked.key;
  return keys;
}

TEST(Fusion, OrdersByTheSumOfReciprocalRanks) {
  struct Case {
    const char* why;
    std::vector<Ranking> rankings;
    const char* order;
  };
  const std::vector<Case> cases{
      {"nothing found", {}, ""},
      {"one ranking stands as it is", {{{"a", "b", "c"}}}, "abc"},
      {"found by both counts more than first by one", {{{"a", "b"}}, {{"c", "b"}}}, "bac"},
      {"a ranking that counts little settles ties only", {{{"a", "b", "c"}, 1}, {{"c", "d"}, 0.001}}, "abcd"},
      {"a key counts once a ranking, by its first place", {{{"a", "b", "b", "b"}}, {{"a"}}}, "ab"},
      {"equals stand as they were found", {{{"a"}}, {{"b"}}}, "ab"},
  };
  for (const Case& each : cases) EXPECT_EQ(order(each.rankings), each.order) << each.why;
  EXPECT_DOUBLE_EQ(fuse({{{"a"}}, {{"b", "a"}, 2}})[0].score, 1.0 / 61 + 2.0 / 62);
}

}  // namespace
}  // namespace ossilar::search
