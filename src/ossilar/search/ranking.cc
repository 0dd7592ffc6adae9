// Ranks are joined, not scores: BM25 has no upper bound and a cosine ends at 1, and how either is spread
// depends on the query. Adding them would need a scale for every query; a rank needs none.
//
// The result depends on nothing but the input: keys are collected in the order in which they are found, and
// the sort is stable.
#include "ossilar/search/ranking.h"

#include <algorithm>
#include <map>
#include <set>

namespace ossilar::search {
namespace {

// The paper's k. The larger it is, the less the first places stand out against the ones behind them.
constexpr double kRankConstant = 60;

}  // namespace

std::vector<Ranked> fuse(const std::vector<Ranking>& rankings) {
  std::vector<Ranked> fused;
  std::map<std::string, std::size_t> places;  // key to its index in `fused`
  for (const Ranking& ranking : rankings) {
    std::set<std::string> seen;  // its size is the rank: a repeated key must not push later ones down
    for (const std::string& key : ranking.keys) {
      if (!seen.insert(key).second) continue;
      const auto [place, is_new] = places.emplace(key, fused.size());
      if (is_new) fused.push_back({key, 0});
      fused[place->second].score += ranking.weight / (kRankConstant + static_cast<double>(seen.size()));
    }
  }
  std::stable_sort(fused.begin(), fused.end(),
                   [](const Ranked& a, const Ranked& b) { return a.score > b.score; });
  return fused;
}

}  // namespace ossilar::search
