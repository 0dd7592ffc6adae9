// A heap holds the pairs that are tied. A merge changes how close the merged one is to each of its
// neighbours, so those pairs are pushed again, and entries made before a merge are passed over when they come
// up.
#include "ossilar/workers/wiki/plan/grouping/communities.h"

#include <algorithm>
#include <map>
#include <queue>
#include <tuple>
#include <utility>

namespace ossilar::workers::wiki {
namespace {

struct Community {
  std::vector<std::size_t> nodes;                 // empty for one that was merged into another
  std::map<std::size_t, std::int64_t> strengths;  // of the ties to each neighbour
  std::int64_t weight = 0;
  std::int64_t degree = 0;  // all strengths of its nodes, those within it too
  std::size_t merges = 0;   // tells which entries of the heap are of today
};

// A pair that may be merged, `a` the one with the lower first node.
struct Pair {
  double closeness = 0;
  std::size_t a = 0;
  std::size_t b = 0;
  std::size_t merges = 0;  // of both, when the entry was made

  bool operator<(const Pair& other) const {
    return std::tie(closeness, other.a, other.b) < std::tie(other.closeness, a, b);
  }
};

class Merging {
 public:
  Merging(const std::vector<std::int64_t>& weights, const std::vector<Tie>& ties, const CommunitySizes& sizes)
      : sizes_(sizes), all_(weights.size()) {
    for (std::size_t i = 0; i < weights.size(); ++i) {
      all_[i].nodes.push_back(i);
      all_[i].weight = weights[i];
    }
    for (const Tie& tie : ties) add(tie);
    for (std::size_t i = 0; i < all_.size(); ++i) push_pairs(i, [i](std::size_t other) { return i < other; });
  }

  std::vector<std::vector<std::size_t>> run() {
    while (!pairs_.empty()) {
      const Pair next = pairs_.top();
      pairs_.pop();
      if (is_current(next) && may_merge(next)) merge(next.a, next.b);
    }
    std::vector<std::vector<std::size_t>> found;
    for (Community& community : all_) {
      std::sort(community.nodes.begin(), community.nodes.end());
      if (!community.nodes.empty()) found.push_back(std::move(community.nodes));
    }
    return found;
  }

 private:
  void add(const Tie& tie) {
    if (tie.a == tie.b) return;
    all_[tie.a].strengths[tie.b] += tie.strength;
    all_[tie.b].strengths[tie.a] += tie.strength;
    all_[tie.a].degree += tie.strength;
    all_[tie.b].degree += tie.strength;
    total_ += 2 * tie.strength;
  }

  // How many times as strongly the two are tied as chance would tie them. Products and a quotient of
  // integers: no sum of fractions, of which the order would matter.
  double closeness(std::size_t a, std::size_t b, std::int64_t strength) const {
    return static_cast<double>(strength) * static_cast<double>(total_) /
           (static_cast<double>(all_[a].degree) * static_cast<double>(all_[b].degree));
  }

  template <class Accept>
  void push_pairs(std::size_t community, Accept accept) {
    for (const auto& [other, strength] : all_[community].strengths) {
      if (!accept(other) || all_[community].weight + all_[other].weight > sizes_.most) continue;
      pairs_.push({closeness(community, other, strength), std::min(community, other),
                   std::max(community, other), all_[community].merges + all_[other].merges});
    }
  }

  bool is_current(const Pair& pair) const {
    const Community &a = all_[pair.a], &b = all_[pair.b];
    return !a.nodes.empty() && !b.nodes.empty() && a.merges + b.merges == pair.merges;
  }

  // Modularity gains by a merge of two that are closer than chance.
  bool may_merge(const Pair& pair) const {
    return pair.closeness > 1 || std::min(all_[pair.a].weight, all_[pair.b].weight) < sizes_.least;
  }

  void merge(std::size_t into, std::size_t from) {
    Community& kept = all_[into];
    Community gone = std::exchange(all_[from], {});
    kept.nodes.insert(kept.nodes.end(), gone.nodes.begin(), gone.nodes.end());
    kept.weight += gone.weight;
    kept.degree += gone.degree;
    kept.merges += gone.merges + 1;  // more than either had, so that no older entry is taken for a new one
    kept.strengths.erase(from);
    for (const auto& [other, strength] : gone.strengths) {
      if (other == into) continue;
      kept.strengths[other] += strength;
      all_[other].strengths.erase(from);
      all_[other].strengths[into] += strength;
    }
    push_pairs(into, [](std::size_t) { return true; });
  }

  CommunitySizes sizes_;
  std::vector<Community> all_;
  std::priority_queue<Pair> pairs_;
  std::int64_t total_ = 0;  // of all degrees
};

}  // namespace

std::vector<std::vector<std::size_t>> communities(const std::vector<std::int64_t>& weights,
                                                  const std::vector<Tie>& ties, const CommunitySizes& sizes) {
  return Merging(weights, ties, sizes).run();
}

}  // namespace ossilar::workers::wiki
