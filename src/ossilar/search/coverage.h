// How much of what a question asks for a text says in the same words. Called by passages/relevance.cc in
// workers/wiki, where it tells how far the words of a question can be trusted to find its answer.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace ossilar::search {

// The words of a question with their weights: rare words count most (WordTable), words that the table does
// not know as much as any, and function words not at all.
//
// Thread-safety: of() may be called from any thread.
class Coverage {
 public:
  explicit Coverage(std::string_view question);
  // The share of the question's weight whose words, by their stems, are in `text`: 0 to 1. 0 for a question
  // of function words alone.
  double of(std::string_view text) const;

 private:
  std::map<std::string, double, std::less<>> weights_;  // by stem
  double whole_ = 0;
};

}  // namespace ossilar::search
