#include "ossilar/source/git/line_map.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace ossilar::source {
namespace {

// Each character stands for a line.
std::string text_of(const std::string& lines) {
  std::string text;
  for (const char c : lines) text += std::string("line ") + c + "\n";
  return text;
}

std::string shown(LineRange range) { return std::to_string(range.first) + "-" + std::to_string(range.last); }

struct Case {
  const char *before, *after;
  LineRange range;
  const char* image;  // "" for none
  const char* place;
};

TEST(LineMapTest, GivesTheImageOfARangeAndWhatStandsInItsPlace) {
  const std::vector<Case> cases{
      {"abcde", "abcde", {2, 3}, "2-3", "2-3"},
      {"abcde", "xabcde", {2, 3}, "3-4", "3-4"},
      {"abcde", "axbcde", {2, 3}, "3-4", "3-4"},  // right above
      {"abcde", "abxcde", {2, 3}, "", "2-4"},     // in between
      {"abcde", "abcxde", {2, 3}, "2-3", "2-3"},  // right below
      {"abcde", "axcde", {2, 3}, "", "2-3"},      // its first line
      {"abcde", "abxde", {2, 3}, "", "2-3"},      // its last line
      {"abcde", "axde", {2, 3}, "", "2-2"},       // fewer lines
      {"abcde", "axyzde", {2, 3}, "", "2-4"},     // more lines
      {"abcde", "ade", {2, 3}, "", "2-1"},        // removed
      {"abcde", "xyade", {2, 3}, "", "4-3"},      // removed, and others added above
      {"abcde", "acde", {2, 3}, "", "2-2"},       // a part removed
      {"abcde", "xbcde", {2, 3}, "2-3", "2-3"},   // the line above
      {"abcde", "abcxe", {2, 3}, "2-3", "2-3"},   // the line below
      {"abcde", "xde", {2, 3}, "", "1-1"},        // with the line above
      {"abcde", "abx", {3, 4}, "", "3-3"},        // with the line below
      {"abcde", "bcde", {1, 1}, "", "1-0"},
      {"abcde", "abcd", {5, 5}, "", "5-4"},
      {"abcde", "", {2, 3}, "", "1-0"},
      {"abcde", "vwxyz", {2, 3}, "", "1-5"},
      {"abcdefgh", "axbcdeyfgh", {3, 4}, "4-5", "4-5"},
      {"abcdefgh", "cdefgh", {5, 6}, "3-4", "3-4"},
  };
  for (const Case& row : cases) {
    const LineMap map(text_of(row.before), text_of(row.after));
    const auto image = map.image(row.range);
    EXPECT_EQ(image ? shown(*image) : "", row.image) << row.before << " " << row.after;
    EXPECT_EQ(shown(map.place_of(row.range)), row.place) << row.before << " " << row.after;
  }
}

TEST(LineMapTest, GivesTheStretchOfUnchangedLines) {
  struct Row {
    const char *before, *after;
    LineRange range;
    const char* stretch;
  };
  const std::vector<Row> rows{
      {"abcdefgh", "abcdefgh", {3, 4}, "1-8"}, {"abcdefgh", "xabcdefgh", {3, 4}, "1-8"},
      {"abcdefgh", "axcdefgh", {3, 4}, "3-8"}, {"abcdefgh", "abxcdefgh", {3, 4}, "3-8"},
      {"abcdefgh", "abcdexgh", {3, 4}, "1-5"}, {"abcdefgh", "abcdxefgh", {3, 4}, "1-4"},
      {"abcdefgh", "xbcdefgy", {3, 4}, "2-7"}, {"abcdefgh", "abcdefghx", {3, 4}, "1-8"},
  };
  for (const Row& row : rows) {
    const LineMap map(text_of(row.before), text_of(row.after));
    EXPECT_EQ(shown(map.stretch_around(row.range)), row.stretch) << row.after;
  }
}

TEST(LineMapTest, CountsRemovedAndAddedLines) {
  struct Row {
    const char *before, *after;
    int removed, added;
  };
  for (const Row& row : {Row{"abc", "abc", 0, 0}, Row{"abc", "axc", 1, 1}, Row{"abc", "ac", 1, 0},
                         Row{"", "abc", 0, 3}, Row{"abc", "", 3, 0}, Row{"abcd", "xbcyz", 2, 3}}) {
    const LineMap map(text_of(row.before), text_of(row.after));
    EXPECT_EQ(map.removed(), row.removed) << row.before << " " << row.after;
    EXPECT_EQ(map.added(), row.added) << row.before << " " << row.after;
  }
}

// Bytes that would make git call a text binary.
TEST(LineMapTest, TakesAnyBytes) {
  const std::string text("a\0b\n\xff\n", 6);
  const auto image = LineMap(text, "x\n" + text).image({1, 2});
  ASSERT_TRUE(image);
  EXPECT_EQ(shown(*image), "2-3");
}

// Whatever the texts: an image holds the same lines, images keep their order, and every line without one was
// removed.
TEST(LineMapTest, ImagesHoldTheSameLines) {
  std::mt19937 random(7);
  const auto word = [&] {
    std::string lines;
    for (std::size_t left = random() % 30; left > 0; --left)
      lines += static_cast<char>('a' + random() % (left % 2 == 0 ? 3 : 26));
    return lines;
  };
  for (int i = 0; i < 2000; ++i) {
    const std::string before = word();
    std::string after = before;
    for (std::size_t left = random() % 5; left > 0; --left) {
      const std::size_t at = random() % (after.size() + 1);
      after.replace(at, random() % 3, word().substr(0, random() % 4));
    }
    const LineMap map(text_of(before), text_of(after));
    std::int64_t last = 0;
    std::int64_t kept = 0;
    for (std::int64_t line = 1; line <= static_cast<std::int64_t>(before.size()); ++line) {
      const auto image = map.image({line, line});
      if (!image) continue;
      ++kept;
      ASSERT_GT(image->first, last) << before << " " << after;
      last = image->first;
      ASSERT_LE(last, static_cast<std::int64_t>(after.size())) << before << " " << after;
      EXPECT_EQ(before[static_cast<std::size_t>(line - 1)], after[static_cast<std::size_t>(last - 1)])
          << before << " " << after;
    }
    EXPECT_EQ(kept + map.removed(), static_cast<std::int64_t>(before.size())) << before << " " << after;
    EXPECT_EQ(kept + map.added(), static_cast<std::int64_t>(after.size())) << before << " " << after;
  }
}

}  // namespace
}  // namespace ossilar::source
