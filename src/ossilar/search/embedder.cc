// The local embedder: feature hashing of words and of the character n-grams in them.
//
// A text is a bag of words; an identifier gives its parts and itself in one piece (parseHTTPHeader: parse,
// http, header, parsehttpheader). A word stands for itself, for its beginning, and for the n-grams of
// "<word>", n = 3 to 5, so that words with a stem in common come out alike (Bojanowski et al., "Enriching
// Word Vectors with Subword Information", 2017, without their trained vectors). Each of these features is
// hashed to one dimension and a sign (Weinberger et al., "Feature Hashing for Large Scale Multitask
// Learning", 2009). A word counts 1 + log(its frequency), a short one less, and the sum is scaled to
// length 1.
//
// Limits: it knows no synonyms and no word order, no language's grammar, and only English function words.
// Texts in scripts that put no blanks between words are told apart by their n-grams alone. Unrelated features
// share a dimension now and then, which blurs cosines by some 1/sqrt(dimensions).
#include "ossilar/search/embedder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <map>
#include <string_view>

#include "ossilar/utils/identifiers.h"
#include "ossilar/utils/text.h"

namespace ossilar::search {
namespace {

constexpr std::size_t kDimensions = 384;
constexpr const char* kModelName = "local-hash-v1-384";  // a change of anything below needs a new version

constexpr std::size_t kShortestGram = 3;
constexpr std::size_t kLongestGram = 5;
constexpr std::size_t kBeginning = 5;  // characters; stems are seldom shorter
// Shares of a word's vector. The word itself has the least: another ending must still find it. N-grams at the
// end, which tell forms and not stems, count a part of the others.
constexpr double kWordWeight = 0.3;
constexpr double kBeginningWeight = 0.6;
constexpr double kGramsWeight = 0.75;
constexpr double kEndGramShare = 0.3;
// Short words are the common ones; this stands in for the frequencies of a corpus, which would tie vectors to
// it.
constexpr std::size_t kFullWeightLength = 8;
// Function words say what relates to what, which a bag of words has lost; only a text of nothing else needs
// them.
constexpr double kFunctionWordWeight = 0.1;
constexpr std::array<std::string_view, 52> kFunctionWords{
    "a",    "about", "an",    "and",   "any",  "are",   "as",   "at",   "be", "but", "by",
    "can",  "do",    "does",  "for",   "from", "has",   "have", "how",  "i",  "if",  "in",
    "into", "is",    "it",    "its",   "no",   "not",   "of",   "on",   "or", "so",  "than",
    "that", "the",   "their", "them",  "then", "there", "they", "this", "to", "was", "we",
    "what", "when",  "where", "which", "who",  "why",   "with", "you"};
static_assert(std::is_sorted(kFunctionWords.begin(), kFunctionWords.end()));

using Sums = std::array<double, kDimensions>;

// FNV-1a, 64 bits: the same on every machine.
class Hash {
 public:
  explicit Hash(char kind, std::string_view bytes = {}) {
    add({&kind, 1});
    add(bytes);
  }
  void add(std::string_view bytes) {
    for (const char byte : bytes) state_ = (state_ ^ static_cast<unsigned char>(byte)) * 0x100000001B3ULL;
  }
  // FNV's last bytes reach only some bits; the finaliser of SplitMix64 spreads them over all.
  std::uint64_t value() const {
    std::uint64_t z = state_;
    z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27U)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31U);
  }

 private:
  std::uint64_t state_ = 0xCBF29CE484222325ULL;
};

void add_feature(Sums& sums, std::uint64_t hash, double weight) {
  const bool negative = (hash >> 63U) != 0;
  sums[hash % kDimensions] += negative ? -weight : weight;
}

// How often each word stands in a text; in the order of the words, so that sums come out the same everywhere.
using Bag = std::map<std::string, std::uint64_t>;

Bag words_of(std::string_view text) {
  Bag bag;
  for (const utils::Token& token : utils::tokens_of(text)) {
    for (const std::string& part : token.parts) ++bag[part];
    if (token.parts.size() > 1) ++bag[token.joined()];
  }
  return bag;
}

// Where the characters of `text` begin, and last its size.
std::vector<std::size_t> character_offsets(std::string_view text) {
  std::vector<std::size_t> offsets;
  for (std::size_t at = 0; at < text.size(); at += utils::utf8_size(text, at)) offsets.push_back(at);
  offsets.push_back(text.size());
  return offsets;
}

struct Gram {
  std::uint64_t hash;
  double weight;
};

std::vector<Gram> grams_of(std::string_view marked, const std::vector<std::size_t>& offsets) {
  std::vector<Gram> grams;
  const std::size_t characters = offsets.size() - 1;
  for (std::size_t first = 0; first + kShortestGram <= characters; ++first) {
    Hash hash('n');
    const std::size_t longest = std::min(first + kLongestGram, characters);
    for (std::size_t end = first + 1; end <= longest; ++end) {
      hash.add(marked.substr(offsets[end - 1], offsets[end] - offsets[end - 1]));
      if (end - first >= kShortestGram)
        grams.push_back({hash.value(), end == characters ? kEndGramShare : 1.0});
    }
  }
  return grams;
}

void add_grams(Sums& sums, std::string_view marked, const std::vector<std::size_t>& offsets, double weight) {
  const std::vector<Gram> grams = grams_of(marked, offsets);
  double squares = 0;
  for (const Gram& gram : grams) squares += gram.weight * gram.weight;
  for (const Gram& gram : grams) add_feature(sums, gram.hash, weight * gram.weight / std::sqrt(squares));
}

double weight_of(std::string_view word, std::size_t characters, std::uint64_t count) {
  const double kind = std::binary_search(kFunctionWords.begin(), kFunctionWords.end(), word)
                          ? kFunctionWordWeight
                          : static_cast<double>(std::min(characters, kFullWeightLength)) /
                                static_cast<double>(kFullWeightLength);
  return kind * (1.0 + std::log(static_cast<double>(count)));
}

void add_word(Sums& sums, const std::string& word, std::uint64_t count) {
  const std::string marked = "<" + word + ">";
  const std::vector<std::size_t> offsets = character_offsets(marked);
  const std::size_t characters = offsets.size() - 3;  // without the marks
  const double weight = weight_of(word, characters, count);
  const std::string_view beginning =
      std::string_view(word).substr(0, offsets[std::min(characters, kBeginning) + 1] - 1);
  add_feature(sums, Hash('w', word).value(), weight * kWordWeight);
  add_feature(sums, Hash('b', beginning).value(), weight * kBeginningWeight);
  add_grams(sums, marked, offsets, weight * kGramsWeight);
}

std::vector<float> normalised(const Sums& sums) {
  double squares = 0;
  for (const double sum : sums) squares += sum * sum;
  const double length = std::sqrt(squares);
  std::vector<float> out(kDimensions);
  if (length > 0) {
    std::transform(sums.begin(), sums.end(), out.begin(),
                   [&](double x) { return static_cast<float>(x / length); });
  }
  return out;
}

std::vector<float> embed_text(std::string_view text) {
  Sums sums{};
  for (const auto& [word, count] : words_of(text)) add_word(sums, word, count);
  return normalised(sums);
}

class LocalEmbedder final : public Embedder {
 public:
  std::string model() const override { return kModelName; }
  std::size_t dimensions() const override { return kDimensions; }
  // It finds inflections and misspellings that words miss, but takes some words for others: it adds to what
  // words find, and settles little between that (bench/retrieval_bench.cc).
  double ranking_weight() const override { return 0.2; }
  std::vector<std::vector<float>> embed(const std::vector<std::string>& texts) override {
    std::vector<std::vector<float>> out;
    out.reserve(texts.size());
    for (const std::string& text : texts) out.push_back(embed_text(text));
    return out;
  }
};

}  // namespace

std::unique_ptr<Embedder> make_local_embedder() { return std::make_unique<LocalEmbedder>(); }

}  // namespace ossilar::search
