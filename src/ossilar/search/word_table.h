// Vectors of general software English, built into the program: words that are used in like company have like
// vectors, so "mutex" is near "lock". scripts/make-words makes the table, words/README.md says of which
// texts. The local embedder adds these vectors up, and coverage.h weighs words with it.
//
// Thread-safety: a table never changes; any thread may call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace ossilar::search {

class WordTable {
 public:
  static constexpr std::size_t kDimensions = 192;

  struct Word {
    double weight = 0;                    // 0 to 1: near 0 for the commonest words, near 1 for rare ones
    const std::int8_t* vector = nullptr;  // kDimensions numbers of no particular length
    double length = 0;                    // of the vector, above 0
  };

  // Makes an index of the words, which takes some 0.2 ms.
  WordTable();
  // `stem` as Stemmer gives it; none for a word that the table does not know.
  std::optional<Word> find(std::string_view stem) const;

 private:
  std::vector<std::string_view> words_;  // sorted by their bytes
  const std::uint8_t* weights_ = nullptr;
  const std::int8_t* vectors_ = nullptr;
};

}  // namespace ossilar::search
