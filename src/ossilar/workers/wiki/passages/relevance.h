// How well passages answer a question, on one scale from 0 to 1, where the embedder's cosines have a known
// scale (search::Embedder::has_known_scale()). Called by wiki_search.cc.
//
// Thread-safety: no state; any thread may call.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ossilar/search/ranking.h"
#include "ossilar/store/repository.h"

namespace ossilar::workers::wiki {

// A best score below this tells that the wiki may well have no answer. Of the questions in
// tests/data/questions it is below for most that have none, and for few that share a word with their answer.
inline constexpr double kUnsure = 0.15;

// What was found for a question, by the hashes of passages, each best first.
struct Candidates {
  const std::string& question;
  const std::vector<store::FoundPassage>& by_words;
  const std::vector<store::FoundPassage>& by_vectors;
  // Cosines with the question of passages that are in by_words alone, as far as they have vectors.
  const std::map<std::string, double>& other_cosines;
};

// The candidates with their scores, the best first.
std::vector<search::Ranked> by_relevance(const Candidates& candidates);

}  // namespace ossilar::workers::wiki
