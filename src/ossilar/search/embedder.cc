// The local embedder: the weighted mean of the vectors of a text's words (Arora, Liang and Ma, "A Simple but
// Tough-to-Beat Baseline for Sentence Embeddings", 2017). The vectors and weights are those of the word
// table, whose common component was taken out when it was made. A word is weighted by its rarity and by 1 +
// log(its frequency); an identifier is its parts (parseHTTPHeader: parse, http, header). Words are stemmed.
//
// A word that the table does not know gets its vector by its spelling: itself, its beginning, and the n-grams
// of "<word>", n = 3 to 5, so that words with a common stem get similar vectors (Bojanowski et al.,
// "Enriching Word Vectors with Subword Information", 2017, without their trained vectors). Each of these
// features is hashed to one dimension and a sign (Weinberger et al., "Feature Hashing for Large Scale
// Multitask Learning", 2009).
//
// Limits: no word order, no grammar, English alone. What a word means in this repository and nowhere else is
// not known: learning vectors from the sources themselves was tried, and found no more answers.
//
// The model's name stands for the same vectors in every build, so sums are made in a fixed order, and the
// hash is our own. A changed table needs another name; passages/reembedding.h then embeds all passages anew.
#include "ossilar/search/embedder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ossilar/search/stemmer.h"
#include "ossilar/search/word_table.h"
#include "ossilar/utils/identifiers.h"
#include "ossilar/utils/text.h"

namespace ossilar::search {
namespace {

constexpr std::size_t kDimensions = WordTable::kDimensions;
// A change of anything below, or of the word table, needs a new version.
constexpr const char* kModelName = "local-words-v1-192";

// Shorter n-grams are shared by unrelated words; longer ones are nearly as particular as the word itself.
constexpr std::size_t kShortestGram = 3;
constexpr std::size_t kLongestGram = 5;
constexpr std::size_t kBeginning = 5;  // characters; stems are seldom shorter
// Shares of a word's vector; only their ratios matter, as the sum is scaled at the end. They trade exact
// matches for matches of other forms of a word: the word itself has the smallest share, so that another
// ending still finds it. N-grams at the word's end mark its form rather than its stem, and so have a smaller
// weight.
constexpr double kWordWeight = 0.3;
constexpr double kBeginningWeight = 0.6;
constexpr double kGramsWeight = 0.75;
constexpr double kEndGramShare = 0.3;
// Unknown words of fewer characters weigh proportionally less: most of them are names of variables.
constexpr std::size_t kFullWeightLength = 8;
// Function words express relations, which a bag of words loses anyway. Their weight is not 0, so that a text
// of nothing else still has a vector.
constexpr double kFunctionWordShare = 0.1;
// The first eight bytes of a word as one number, padded with zeros. Comparing two such numbers compares the
// bytes, without reading the words, and settles all comparisons but those of long words that begin alike.
constexpr std::size_t kInNumber = sizeof(std::uint64_t);
constexpr std::uint64_t beginning_of(std::string_view word) {
  std::uint64_t beginning = 0;
  for (std::size_t i = 0; i < kInNumber; ++i)
    beginning = (beginning << 8U) | (i < word.size() ? static_cast<unsigned char>(word[i]) : 0U);
  return beginning;
}

using Sums = std::array<double, kDimensions>;

// FNV-1a, 64 bits: the same on every machine, and extended byte by byte, which the n-grams use.
class Hash {
 public:
  // `kind` keeps features of different kinds apart: the word "index" and the n-gram "index" are two features.
  explicit Hash(char kind, std::string_view bytes = {}) {
    add(kind);
    add(bytes);
  }
  void add(char byte) { state_ = (state_ ^ static_cast<unsigned char>(byte)) * 0x100000001B3ULL; }
  void add(std::string_view bytes) {
    for (const char byte : bytes) add(byte);
  }
  // The last bytes fed to FNV affect only some bits; the finaliser of SplitMix64 spreads them over all.
  std::uint64_t value() const {
    std::uint64_t z = state_;
    z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27U)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31U);
  }

 private:
  std::uint64_t state_ = 0xCBF29CE484222325ULL;
};

// The stems of a text, each occurrence an entry; function words as they are. A map from word to count would
// be simpler; sorting positions in one string avoids an allocation per word.
class Words {
 public:
  Words(std::string_view text, const Stemmer& stemmer) {
    letters_.reserve(text.size());
    places_.reserve(text.size() / 4);  // a guess at how many words there are; more only reallocate
    for (utils::TokenReader token(text); token.next();) {
      for (std::size_t i = 0; i < token.size(); ++i) {
        const std::string_view part = token.part(i);
        if (is_unspaced(part)) {
          add_pairs(part);
        } else {
          add(is_function_word(part) ? part : stemmer.stem(part));
        }
      }
    }
  }

  // Calls visit(word, number of occurrences) in the order of the words' bytes. Floating point sums depend on
  // their order, and the order of an unordered map depends on the standard library.
  template <class Visit>
  void visit(Visit visit) {
    std::sort(places_.begin(), places_.end(),
              [this](const Place& a, const Place& b) { return is_before(a, b); });
    for (auto at = places_.begin(); at != places_.end();) {
      const std::string_view word = word_at(*at);
      const auto next =
          std::find_if(at, places_.end(), [&](const Place& place) { return !is_same(place, *at); });
      visit(word, static_cast<std::uint64_t>(next - at));
      at = next;
    }
  }

 private:
  struct Place {
    std::uint64_t beginning;
    std::size_t begin;
    std::size_t size;
  };

  // Whether the word is of a script that sets no blanks between words, and so may be a whole sentence:
  // Chinese and Japanese characters, all beyond U+3000, which UTF-8 begins with bytes from 0xE3 on.
  static bool is_unspaced(std::string_view word) {
    return !word.empty() && static_cast<unsigned char>(word.front()) >= 0xE3;
  }

  // Each two neighbouring characters as a word, the usual unit where nothing tells where words end.
  void add_pairs(std::string_view word) {
    std::size_t first = 0;
    std::size_t second = utils::utf8_size(word, 0);
    if (second == word.size()) add(word);
    while (second < word.size()) {
      const std::size_t end = second + utils::utf8_size(word, second);
      add(word.substr(first, end - first));
      first = second;
      second = end;
    }
  }

  void add(std::string_view word) {
    places_.push_back({beginning_of(word), letters_.size(), word.size()});
    letters_ += word;
  }

  std::string_view word_at(const Place& place) const {
    return std::string_view(letters_).substr(place.begin, place.size);
  }

  static bool is_short(const Place& place) { return place.size <= kInNumber; }

  bool is_before(const Place& a, const Place& b) const {
    if (a.beginning != b.beginning) return a.beginning < b.beginning;
    return is_short(a) && is_short(b) ? a.size < b.size : word_at(a) < word_at(b);
  }

  bool is_same(const Place& a, const Place& b) const {
    return a.beginning == b.beginning && a.size == b.size && (is_short(a) || word_at(a) == word_at(b));
  }

  std::string letters_;  // all words concatenated; a Place points into it
  std::vector<Place> places_;
};

// The sum of the squares of the weights of the n-grams of a word that has so many characters, marks included.
constexpr double gram_squares(std::size_t characters) {
  double squares = 0;
  for (std::size_t first = 0; first + kShortestGram <= characters; ++first) {
    const std::size_t longest = std::min(first + kLongestGram, characters);
    for (std::size_t end = first + kShortestGram; end <= longest; ++end)
      squares += end == characters ? kEndGramShare * kEndGramShare : 1.0;
  }
  return squares;
}

// It depends on the length alone, so it is computed at compile time for words of fewer characters than this.
// Longer ones are rare.
constexpr std::size_t kMostKnown = 32;
constexpr std::array<double, kMostKnown> kGramSquares = [] {
  std::array<double, kMostKnown> squares{};
  for (std::size_t characters = 0; characters < kMostKnown; ++characters)
    squares[characters] = gram_squares(characters);
  return squares;
}();

// One feature of a word: the dimension to which it is added, and its sign. Four bytes, as caches keep many.
class Feature {
 public:
  Feature(std::uint64_t hash, bool at_end)
      : place_(static_cast<std::uint16_t>(hash % kDimensions)),
        negative_(static_cast<std::uint8_t>(hash >> 63U)),
        at_end_(at_end) {}

  // `weights` are those of features within the word and at its end; neither may be negative. The sign is set
  // by an OR into the weight's sign bit: it is random, so a branch on it would be mispredicted half of the
  // time.
  void add_to(Sums& sums, const std::array<double, 2>& weights) const {
    const auto weight = std::bit_cast<std::uint64_t>(weights[at_end_]);
    sums[place_] += std::bit_cast<double>(weight | (std::uint64_t{negative_} << 63U));
  }

 private:
  std::uint16_t place_;
  std::uint8_t negative_;
  std::uint8_t at_end_;
};

struct Features {
  std::size_t letters = 0;   // characters of the word without its marks
  double gram_length = 0;    // the length of the vector of its n-grams' weights, by which they are divided
  std::vector<Feature> all;  // the word itself, its beginning, then its n-grams in their order
};

// Computes the features of words. Keeps its buffers from word to word, to allocate less.
class FeatureReader {
 public:
  Features read(std::string_view word) {
    mark(word);
    Features features;
    features.letters = characters() - 2;  // without the marks
    const double squares =
        characters() < kMostKnown ? kGramSquares[characters()] : gram_squares(characters());
    features.gram_length = std::sqrt(squares);
    // The offsets are those in "<word>", one byte further on than in the word.
    const std::string_view beginning =
        word.substr(0, offsets_[std::min(features.letters, kBeginning) + 1] - 1);
    features.all.reserve(2 + 3 * characters());  // three lengths of n-gram begin at a character, at most
    features.all.emplace_back(Hash('w', word).value(), false);
    features.all.emplace_back(Hash('b', beginning).value(), false);
    for (std::size_t first = 0; first + kShortestGram <= characters(); ++first)
      add_grams(features.all, first);
    return features;
  }

 private:
  std::size_t characters() const { return offsets_.size() - 1; }  // of the marked word

  void mark(std::string_view word) {
    marked_.assign(1, '<').append(word) += '>';
    offsets_.clear();
    for (std::size_t at = 0; at < marked_.size(); at += utils::utf8_size(marked_, at)) offsets_.push_back(at);
    offsets_.push_back(marked_.size());
  }

  // The n-grams that begin at the character `first`: each hash is the shorter one's, extended.
  void add_grams(std::vector<Feature>& features, std::size_t first) const {
    const std::size_t longest = std::min(first + kLongestGram, characters());
    Hash hash('n');
    for (std::size_t end = first + 1; end <= longest; ++end) {
      const std::size_t begin = offsets_[end - 1];
      hash.add(std::string_view(marked_).substr(begin, offsets_[end] - begin));
      if (end - first >= kShortestGram) features.emplace_back(hash.value(), end == characters());
    }
  }

  std::string marked_;                // "<word>"
  std::vector<std::size_t> offsets_;  // where each of its characters begins; the last is its size
};

// The features of recent words. Texts that are embedded together share most of their words, so most need no
// hashing again. The cache changes no vector.
//
// Thread-safety: one thread at a time.
class FeatureCache {
 public:
  // Valid until the next call.
  const Features& of(std::string_view word) {
    if (const auto known = features_.find(word); known != features_.end()) return known->second;
    Features read = reader_.read(word);
    if (word.size() > kLongestKept) return unkept_ = std::move(read);
    // Everything goes at once: common words are back with the next text, and no order of use has to be kept.
    if (features_.size() >= kMostKept) features_.clear();
    return features_.emplace(word, std::move(read)).first->second;
  }

 private:
  static constexpr std::size_t kMostKept = 4096;   // words; some 600 KB
  static constexpr std::size_t kLongestKept = 32;  // bytes; longer words are rare and would take more room

  struct WordHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view word) const { return std::hash<std::string_view>()(word); }
  };

  FeatureReader reader_;
  std::unordered_map<std::string, Features, WordHash, std::equal_to<>> features_;
  Features unkept_;
};

// The logarithm damps repetition: the tenth occurrence of a word says less about the text than the first.
double damped(std::uint64_t count) { return 1.0 + std::log(static_cast<double>(count)); }

void add_known(Sums& sums, const WordTable::Word& word, double weight) {
  const double share = weight * word.weight / word.length;
  for (std::size_t i = 0; i < kDimensions; ++i) sums[i] += share * word.vector[i];
}

// N-grams are divided by their length as a vector, so that a long word, which has more of them, does not
// count more.
void add_unknown(Sums& sums, const Features& features, double weight) {
  weight *= static_cast<double>(std::min(features.letters, kFullWeightLength)) /
            static_cast<double>(kFullWeightLength);
  features.all[0].add_to(sums, {weight * kWordWeight, 0});
  features.all[1].add_to(sums, {weight * kBeginningWeight, 0});
  const double grams = weight * kGramsWeight;
  const std::array<double, 2> weights{grams * 1.0 / features.gram_length,
                                      grams * kEndGramShare / features.gram_length};
  for (auto gram = features.all.begin() + 2; gram != features.all.end(); ++gram) gram->add_to(sums, weights);
}

// A text without words stays all zeros: it has no direction, and its cosine with anything is 0.
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

class LocalEmbedder final : public Embedder {
 public:
  std::string model() const override { return kModelName; }
  std::size_t dimensions() const override { return kDimensions; }
  bool has_known_scale() const override { return true; }
  // `task` is ignored: this only computes, on one page, one batch or one query, and never waits.
  std::vector<std::vector<float>> embed(const std::vector<std::string>& texts,
                                        const utils::Task& /*task*/) override {
    std::vector<std::vector<float>> out;
    out.reserve(texts.size());
    const Stemmer
        stemmer;  // this and the cache serve one call: the texts of a page share most of their words
    FeatureCache features;
    for (const std::string& text : texts) out.push_back(embed_text(text, stemmer, features));
    return out;
  }

 private:
  std::vector<float> embed_text(std::string_view text, const Stemmer& stemmer, FeatureCache& features) const {
    Sums sums{};
    Words(text, stemmer).visit([&](std::string_view word, std::uint64_t count) {
      const double weight = damped(count) * (is_function_word(word) ? kFunctionWordShare : 1);
      if (const auto known = table_.find(word)) {
        add_known(sums, *known, weight);
      } else {
        add_unknown(sums, features.of(word), weight);
      }
    });
    return normalised(sums);
  }

  const WordTable table_;
};

}  // namespace

std::unique_ptr<Embedder> make_local_embedder() { return std::make_unique<LocalEmbedder>(); }

}  // namespace ossilar::search
