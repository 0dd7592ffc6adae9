#include "ossilar/search/chunking.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "ossilar/utils/text.h"
#include "support/rows.h"

namespace ossilar::search {
namespace {

using ::ossilar::testing::rows_of;

// A string, or [COUNT, TEXT...]: the texts, so many times over.
std::string text_of(const Map& text) {
  if (text.is_string()) return text;
  std::string out;
  for (std::size_t left = text.at(0); left > 0; --left) {
    for (std::size_t i = 1; i < text.size(); ++i) out += text_of(text[i]);
  }
  return out;
}

TEST(Chunking, SectionsAndSizes) {
  for (const Map& row : rows_of("search/passages.txt")) {
    Map found = Map::array();
    for (const Passage& passage : passages(text_of(row.at(0)))) {
      found.push_back(passage.section + ":" + std::to_string(passage.text.size()));
    }
    EXPECT_EQ(found, row.at(1)) << row;
  }
}

// Random blocks; each line has a word that names its section.
std::string generated(unsigned seed) {
  std::mt19937 random(seed);  // the standard fixes its numbers
  std::string word = "S0";
  std::string out;
  for (int block = 0; block < 30; ++block) {
    const auto kind = random() % 8;
    if (kind < 2) out += "## " + (word = "S" + std::to_string(random() % 9 + 1)) + "\n\n";
    const std::string lines[] = {word + ". \xC3\xA9 ", word + "\n", "> " + word + "\n", "- " + word + "\n"};
    if (kind >= 2 && kind < 6) out += text_of({random() % 900, lines[kind - 2]}) + "\n\n";
    if (kind < 6) continue;
    const std::string indent(kind == 6 ? 0 : 2, ' ');
    if (kind == 7) out += "- " + text_of({random() % 900, "item\n  "}) + "\n\n";
    out += text_of({1, indent, "```\n", {random() % 500, indent, word, "\n"}, indent, "```\n\n"});
  }
  return out;
}

TEST(Chunking, LawsOverGeneratedMarkdown) {
  for (unsigned seed = 0; seed < 100; ++seed) {
    const std::string markdown = generated(seed);
    std::size_t end = 0;
    for (const auto& [section, text] : passages(markdown)) {
      const auto begin = markdown.find(text, end);
      ASSERT_NE(begin, std::string::npos) << text;
      ASSERT_EQ(utils::strip(markdown.substr(end, begin - end)), "") << "is lost before " << text;
      end = begin + text.size();
      const std::string mark = section.empty() ? "S0" : section;
      const auto words = utils::split_words(text);
      ASSERT_FALSE(words.empty());
      for (const auto word : words) ASSERT_TRUE(word[0] != 'S' || word.substr(0, 2) == mark) << text;
      const auto fences = std::count(words.begin(), words.end(), "```");
      const bool is_code = fences == 2 && words.front() == "```" && words.back() == "```";
      ASSERT_EQ(fences % 2, 0) << "code is cut: " << text;
      ASSERT_TRUE(is_code || text.size() <= kLongestPassage) << text;
      ASSERT_EQ(utils::first_invalid_utf8(text), std::nullopt);
    }
    ASSERT_EQ(utils::strip(markdown.substr(end)), "") << seed;
  }
}

TEST(Chunking, SizeStaysInProportion) {
  const std::size_t size = std::size_t{1} << 20U;
  for (const std::string& markdown :
       {std::string(size, 'x'), "x" + std::string(size, ' ') + "x", std::string(size, '\x80'),
        "## " + std::string(size, 't') + "\n\n" + std::string(size, 'x'),
        std::string(size / 16, '>') + " x\n"}) {
    std::size_t kept = 0;
    for (const Passage& passage : passages(markdown)) {
      EXPECT_LE(passage.text.size(), kLongestPassage);
      kept += passage.text.size() + passage.section.size();
    }
    EXPECT_LE(kept, 3 * markdown.size()) << markdown.substr(0, 5);
  }
}

}  // namespace
}  // namespace ossilar::search
