#include "ossilar/search/stemmer.h"

#include <libstemmer.h>

#include <algorithm>
#include <array>
#include <new>

namespace ossilar::search {
namespace {

constexpr std::array<std::string_view, 110> kFunctionWords{
    "a",     "about", "after",  "again",  "all",     "also",    "an",    "and",    "any",  "are",
    "as",    "at",    "be",     "been",   "before",  "being",   "but",   "by",     "can",  "could",
    "did",   "do",    "does",   "down",   "during",  "each",    "else",  "for",    "from", "get",
    "gets",  "had",   "has",    "have",   "how",     "i",       "if",    "in",     "into", "is",
    "it",    "its",   "itself", "just",   "me",      "more",    "most",  "much",   "must", "my",
    "no",    "nor",   "not",    "now",    "of",      "off",     "on",    "once",   "one",  "only",
    "or",    "other", "our",    "out",    "over",    "own",     "same",  "should", "so",   "some",
    "such",  "than",  "that",   "the",    "their",   "them",    "then",  "there",  "they", "this",
    "those", "to",    "too",    "under",  "until",   "up",      "upon",  "us",     "use",  "was",
    "we",    "were",  "what",   "when",   "where",   "whether", "which", "while",  "who",  "whose",
    "why",   "will",  "with",   "within", "without", "would",   "yet",   "you",    "your", "yours"};
static_assert(std::is_sorted(kFunctionWords.begin(), kFunctionWords.end()));

}  // namespace

void Stemmer::Delete::operator()(sb_stemmer* stemmer) const { sb_stemmer_delete(stemmer); }

Stemmer::Stemmer() : stemmer_(sb_stemmer_new("english", nullptr)) {
  if (!stemmer_) throw std::bad_alloc();
}

std::string_view Stemmer::stem(std::string_view word) const {
  const sb_symbol* stem = sb_stemmer_stem(stemmer_.get(), reinterpret_cast<const sb_symbol*>(word.data()),
                                          static_cast<int>(word.size()));
  if (stem == nullptr) throw std::bad_alloc();
  return {reinterpret_cast<const char*>(stem), static_cast<std::size_t>(sb_stemmer_length(stemmer_.get()))};
}

bool is_function_word(std::string_view word) {
  return std::binary_search(kFunctionWords.begin(), kFunctionWords.end(), word);
}

}  // namespace ossilar::search
