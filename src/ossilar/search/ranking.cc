#include "ossilar/search/ranking.h"

#include <algorithm>
#include <map>
#include <set>

namespace ossilar::search {
namespace {

constexpr double kRankConstant = 60;  // the paper's k

}  // namespace

std::vector<Ranked> fuse(const std::vector<Ranking>& rankings) {
  std::vector<Ranked> fused;
  std::map<std::string, std::size_t> places;
  for (const Ranking& ranking : rankings) {
    std::set<std::string> seen;
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
