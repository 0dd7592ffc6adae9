// Joining rankings.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace ossilar::search {

// One way of ranking: what it found, the best first, and what a place in it counts.
struct Ranking {
  std::vector<std::string> keys;
  double weight = 1;
};

struct Ranked {
  std::string key;
  double score = 0;
};

// Reciprocal rank fusion (Cormack, Clarke and Buettcher, "Reciprocal Rank Fusion outperforms Condorcet and
// individual Rank Learning Methods", SIGIR 2009): a key scores weight / (60 + rank) in each ranking that has
// it, by its first place there. The best first; of equals, the one that an earlier ranking found first.
std::vector<Ranked> fuse(const std::vector<Ranking>& rankings);

}  // namespace ossilar::search
