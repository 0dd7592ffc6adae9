#include "ossilar/search/embedder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "support/rows.h"

namespace ossilar::search {
namespace {

using ::ossilar::testing::rows_of;

std::vector<float> embedded(const std::string& text) {
  return make_local_embedder()->embed({"", text}, {}).back();
}

float dot(const std::vector<float>& a, const std::vector<float>& b) {
  return std::inner_product(a.begin(), a.end(), b.begin(), 0.0F);
}

TEST(LocalEmbedder, FindsThePassageByOtherFormsOfItsWords) {
  const auto rows = rows_of("search/retrieval.txt");
  for (const Map& row : rows) {
    for (const Map& query : row.at(1)) {
      const auto score = [&](const Map& of) { return dot(embedded(of.at(0)), embedded(query)); };
      for (const Map& other : rows) EXPECT_TRUE(other == row || score(other) < score(row)) << query;
    }
  }
}

TEST(LocalEmbedder, FindsThePassageThatSaysTheSameInOtherWords) {
  const auto rows = rows_of("search/other_words.txt");
  for (const Map& row : rows) {
    const auto score = [&](const Map& of) { return dot(embedded(of.at(0)), embedded(row.at(1))); };
    for (const Map& other : rows) EXPECT_TRUE(other == row || score(other) < score(row)) << row;
  }
}

TEST(LocalEmbedder, VectorsHaveLengthOneOrNone) {
  for (const char* text : {"word", "a", "the", "x x x x", "\xC3\xA9", "one _ two", "\x80\xFF"}) {
    EXPECT_EQ(embedded(text).size(), make_local_embedder()->dimensions());
    EXPECT_NEAR(dot(embedded(text), embedded(text)), 1.0F, 1e-5F) << text;
  }
  for (const char* text : {"", " \n", "--- *** \xE2\x80\x94 ___", "\xE3\x80\x82"}) {
    EXPECT_THAT(embedded(text), ::testing::Each(0.0F)) << text;
  }
}

TEST(LocalEmbedder, SameWordsSameVector) {
  for (const Map& row : rows_of("search/same_words.txt")) {
    EXPECT_EQ(embedded(row.at(0)), embedded(row.at(1))) << row;
  }
}

// The cache of words must not change a vector, whether it has the words or has dropped them.
TEST(LocalEmbedder, VectorsDoNotDependOnTheTextsBefore) {
  const std::vector<std::string> texts{"one index of words", "words of an index", "caf\xC3\xA9 index",
                                       std::string(100, 'w') + " index"};
  std::vector<std::vector<float>> first;
  for (const std::string& text : texts) first.push_back(embedded(text));
  for (int i = 0; i < 3; ++i) {
    std::string many;
    for (std::size_t word = 0; word < 3000; ++word)
      many += "w" + std::string(1 + word % 7, 'x') + std::to_string(word) + " ";
    embedded(many);
    for (std::size_t at = texts.size(); at-- > 0;) EXPECT_EQ(embedded(texts[at]), first[at]) << texts[at];
  }
}

// Vectors of other machines are compared with ours, so a model must give the same numbers for ever.
TEST(LocalEmbedder, TheVectorsOfAModelNameNeverChange) {
  EXPECT_EQ(make_local_embedder()->model(), "local-words-v1-192");
  std::vector<float> places(192);
  std::iota(places.begin(), places.end(), 1.0F);
  EXPECT_NEAR(dot(embedded("The index of a zzyzx repository"), places), 60.5730, 1e-2);
}

}  // namespace
}  // namespace ossilar::search
