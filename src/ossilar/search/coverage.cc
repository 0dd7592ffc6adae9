#include "ossilar/search/coverage.h"

#include <set>

#include "ossilar/search/stemmer.h"
#include "ossilar/search/word_table.h"
#include "ossilar/utils/identifiers.h"

namespace ossilar::search {
namespace {

// Calls visit(stem) for each part of each word that is no function word.
template <class Visit>
void visit_stems(std::string_view text, Visit visit) {
  const Stemmer stemmer;
  for (utils::TokenReader token(text); token.next();) {
    for (std::size_t i = 0; i < token.size(); ++i) {
      if (!is_function_word(token.part(i))) visit(stemmer.stem(token.part(i)));
    }
  }
}

}  // namespace

Coverage::Coverage(std::string_view question) {
  const WordTable table;
  visit_stems(question, [&](std::string_view stem) {
    const auto known = table.find(stem);
    weights_.emplace(stem, known ? known->weight : 1);
  });
  for (const auto& [stem, weight] : weights_) whole_ += weight;
}

double Coverage::of(std::string_view text) const {
  if (whole_ == 0) return 0;
  std::set<std::string_view> found;
  visit_stems(text, [&](std::string_view stem) {
    if (const auto asked = weights_.find(stem); asked != weights_.end()) found.insert(asked->first);
  });
  double share = 0;
  for (const std::string_view stem : found) share += weights_.find(stem)->second;
  return share / whole_;
}

}  // namespace ossilar::search
