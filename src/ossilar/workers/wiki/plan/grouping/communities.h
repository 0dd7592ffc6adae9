// Communities of a graph: nodes that are tied to each other more closely than to the rest.
//
// Pairs are merged from the bottom up, the most closely tied first. Closeness and the point at which merging
// ends are those of modularity: A. Clauset, M. Newman, C. Moore, "Finding community structure in very large
// networks", Physical Review E 70 (2004). They merge by the gain in modularity itself, which lets the largest
// community swallow the rest. Here the next pair is the one with the highest share of the ties that chance
// would give it: T. Bonald, B. Charpentier, A. Galland, A. Hollocou, "Hierarchical Graph Clustering using
// Node Pair Sampling", MLG workshop (2018). That order depends on the ties of the two alone, so a new node
// leaves communities far from it as they are.
//
// Thread-safety: no state is kept, so any thread may call it. It does not fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ossilar::workers::wiki {

// A tie between two nodes. Its strength is positive; repeated ties add up.
struct Tie {
  std::size_t a = 0;
  std::size_t b = 0;
  std::int64_t strength = 0;
};

struct CommunitySizes {
  std::int64_t least =
      0;  // a lighter community is merged even if it is tied more closely than chance only just
  std::int64_t most = 0;  // no merge makes a heavier one; a single node may be
};

// The communities of the nodes 0, 1, ... with these weights: lists of nodes in their order, the lists in the
// order of their first nodes. Equal ties are settled by the order of the nodes, and sums are of integers, so
// the same graph gives the same communities on every machine. Strengths may add up to 2^62.
std::vector<std::vector<std::size_t>> communities(const std::vector<std::int64_t>& weights,
                                                  const std::vector<Tie>& ties, const CommunitySizes& sizes);

}  // namespace ossilar::workers::wiki
