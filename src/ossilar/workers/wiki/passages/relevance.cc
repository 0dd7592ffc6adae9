// A passage's score is its cosine, and its share of the best BM25 score. How much the latter counts is
// decided by the question: where some passage has all of its words, the words find the answer better than any
// vector; where none has the rare ones, what they find is noise, and the cosines are all there is. Ranks
// (reciprocal rank fusion) do not tell these cases apart: the first of a ranking by words is first with one
// common word too.
#include "ossilar/workers/wiki/passages/relevance.h"

#include <algorithm>

#include "ossilar/search/coverage.h"

namespace ossilar::workers::wiki {
namespace {

using store::FoundPassage;

// The weight of words that are all there beside a cosine of 1, tuned on two thirds of tests/data/questions.
constexpr double kWordsWeight = 0.8;
// Passages in which the question's words are looked for. One that has all of them is rarely further behind.
constexpr std::size_t kLookedAt = 10;

double best_coverage(const Candidates& candidates) {
  const search::Coverage coverage(candidates.question);
  double best = 0;
  for (std::size_t i = 0; i < std::min(kLookedAt, candidates.by_words.size()); ++i) {
    const FoundPassage& passage = candidates.by_words[i];
    best = std::max(best, coverage.of(passage.title + "\n" + passage.section + "\n" + passage.text));
  }
  return best;
}

}  // namespace

std::vector<search::Ranked> by_relevance(const Candidates& candidates) {
  std::map<std::string, double> scores = candidates.other_cosines;
  for (const FoundPassage& passage : candidates.by_vectors) scores[passage.hash] = passage.score;
  for (auto& [hash, score] : scores) score = std::max(score, 0.0);
  if (!candidates.by_words.empty()) {
    const double coverage = best_coverage(candidates);
    const double share = kWordsWeight * coverage * coverage * coverage / candidates.by_words.front().score;
    for (const FoundPassage& passage : candidates.by_words) scores[passage.hash] += share * passage.score;
  }
  std::vector<search::Ranked> ranked;
  ranked.reserve(scores.size());
  for (const auto& [hash, score] : scores) ranked.push_back({hash, score / (1 + kWordsWeight)});
  std::stable_sort(ranked.begin(), ranked.end(),
                   [](const auto& a, const auto& b) { return a.score > b.score; });
  return ranked;
}

}  // namespace ossilar::workers::wiki
