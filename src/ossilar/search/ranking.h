// Joining several rankings of the same things into one. Called by passages/wiki_search.cc in workers/wiki,
// which joins the passages found by words with those found by vectors.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace ossilar::search {

// What one way of searching found, the best first, and the weight of its ranks.
struct Ranking {
  std::vector<std::string> keys;
  double weight = 1;
};

struct Ranked {
  std::string key;
  double score = 0;
};

// Reciprocal rank fusion (Cormack, Clarke and Buettcher, "Reciprocal Rank Fusion outperforms Condorcet and
// individual Rank Learning Methods", SIGIR 2009): a key scores weight / (60 + rank) in each ranking that
// contains it, and its score is the sum. Ranks begin at 1; a key that a ranking repeats counts once, by its
// first place. The result has the best key first; ties keep the order in which the rankings found them.
//
// Thread-safety: may be called from any thread.
std::vector<Ranked> fuse(const std::vector<Ranking>& rankings);

}  // namespace ossilar::search
