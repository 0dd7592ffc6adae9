#include "ossilar/workers/wiki/citing/follow.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace ossilar::workers::wiki {
namespace {

// A text of which each character stands for one line: a capital for a long line of its own, a digit for that
// of the capital of this number (1 is A) with another indentation, a small letter for a short line that says
// something, `}` for a closing brace, `.` for a blank line.
std::string text_of(const std::string& lines, const std::string& end = "\n") {
  std::string text;
  for (const char c : lines) {
    if (c >= 'A' && c <= 'Z') text += std::string("  gather_all_the_values_of(") + c + ");";
    if (c >= '1' && c <= '9')
      text += std::string("      gather_all_the_values_of(") + char('A' + c - '1') + ");";
    if (c >= 'a' && c <= 'z') text += std::string("  return ") + c + ";";
    if (c == '}') text += "}";
    text += end;
  }
  return text;
}

// "moved 3-4": the state, and the lines where it is now; those of `same` are the cited ones.
std::string shown(const Followed& followed, LineRange cited) {
  std::string text = state_name(followed.state);
  if (followed.state == CitationState::same && followed.now == cited) return text;
  if (followed.only_formatting) text += " formatting";
  if (followed.now)
    text += " " + std::to_string(followed.now->first) + "-" + std::to_string(followed.now->last);
  return text;
}

struct Outcome {
  std::string with_text, without_text;
};

// `has_symbol` is whether the function that the lines lay in is still there.
Outcome outcome(const std::string& before, const std::string& after, LineRange cited, bool has_symbol) {
  const LineText old_text(before);
  const LineText new_text(after);
  const HasSymbol has = [&](const std::string& name) { return has_symbol && name == "f"; };
  return {shown(Versions(old_text, new_text).follow(cited, "f", has), cited),
          shown(follow_without_text(fingerprint_of(old_text, cited, "f", {}), cited, new_text, has), cited)};
}

struct Case {
  const char* what;
  const char* before;
  const char* after;
  LineRange cited;
  bool has_symbol;
  const char* with_text;
  const char* without_text;
};

void expect(const std::vector<Case>& cases) {
  for (const Case& row : cases) {
    const auto [with_text, without_text] =
        outcome(text_of(row.before), text_of(row.after), row.cited, row.has_symbol);
    EXPECT_EQ(with_text, row.with_text) << row.what;
    EXPECT_EQ(without_text, row.without_text) << row.what << ", without the old text";
  }
}

TEST(FollowTest, LinesThatStayAreTheSame) {
  expect({
      {"nothing changed", "ABCDEFG", "ABCDEFG", {3, 4}, true, "same", "same"},
      {"a brace, nothing changed", "AB}CD}EF", "AB}CD}EF", {3, 3}, true, "same", "same"},
      {"lines far below added", "ABCDEFG", "ABCDEXFG", {3, 4}, true, "same", "same"},
      {"a line right below added", "ABCDEFG", "ABCDXEFG", {3, 4}, true, "same", "same"},
      {"lines below removed", "ABCDEFG", "ABCD", {3, 4}, true, "same", "same"},
      {"a line far above and one far below changed", "ABCDEFG", "XBCDEFY", {3, 4}, true, "same", "same"},
      {"its neighbours changed", "ABCDEFG", "AXCDYFG", {3, 4}, true, "same", "same"},
      {"everything else changed", "ABCDEFG", "WXCDYZV", {3, 4}, true, "same", "same"},
      {"the whole file", "ABCDEFG", "ABCDEFG", {1, 7}, true, "same", "same"},
  });
}

TEST(FollowTest, EditsAboveShiftTheLines) {
  expect({
      {"lines far above added", "ABCDEFG", "XYABCDEFG", {3, 4}, true, "moved 5-6", "moved 5-6"},
      {"a line right above added", "ABCDEFG", "ABXCDEFG", {3, 4}, true, "moved 4-5", "moved 4-5"},
      {"a line right above changed and one added",
       "ABCDEFG",
       "AXYCDEFG",
       {3, 4},
       true,
       "moved 4-5",
       "moved 4-5"},
      {"lines above removed", "ABCDEFG", "CDEFG", {3, 4}, true, "moved 1-2", "moved 1-2"},
      {"at the start of the file", "ABCDEFG", "XABCDEFG", {1, 2}, true, "moved 2-3", "moved 2-3"},
      {"at the end of the file", "ABCDEFG", "ABCXDEFG", {6, 7}, true, "moved 7-8", "moved 7-8"},
      {"the whole old file", "ABC", "XABCY", {1, 3}, true, "moved 2-4", "moved 2-4"},
      {"a short line that stands once", "ABrCD", "XABrCD", {3, 3}, true, "moved 4-4", "moved 4-4"},
      {"a brace among lines that stayed", "AB}CD}EF", "XAB}CD}EF", {3, 3}, true, "moved 4-4", "moved 4-4"},
      {"blank lines", "AB..CD", "XAB..CD", {3, 4}, true, "moved 4-5", "moved 4-5"},
  });
}

TEST(FollowTest, LinesMovePastOthers) {
  expect({
      {"down past other lines", "ABCDEFGHI", "ABEFGHCDI", {3, 4}, true, "moved 7-8", "moved 7-8"},
      {"up past other lines", "ABCDEFGHI", "AGHBCDEFI", {7, 8}, true, "moved 2-3", "moved 2-3"},
      {"into another function", "AKL}BM}C", "A}BKLM}C", {2, 3}, true, "moved 4-5", "moved 4-5"},
      {"to the end of the file", "ABCDEF", "ADEFBC", {2, 3}, true, "moved 5-6", "moved 5-6"},
      {"to its start", "ABCDEF", "EFABCD", {5, 6}, true, "moved 1-2", "moved 1-2"},
      {"one that moved and was changed", "ABCDEFGH", "ABEFGCXH", {3, 4}, true, "changed", "changed"},
      {"a short line alone: nothing tells that it is the same",
       "ABrCDEF",
       "ABCDErF",
       {3, 3},
       true,
       "ambiguous",
       "ambiguous"},
      {"a brace alone", "AB}CDEF", "ABCDE}F", {3, 3}, true, "ambiguous", "ambiguous"},
  });
}

TEST(FollowTest, ChangedLinesAreNamedWithWhatStandsInTheirPlace) {
  expect({
      {"one line of it", "ABCDEFG", "ABCXEFG", {3, 5}, true, "changed 3-5", "changed"},
      {"its first line", "ABCDEFG", "ABXDEFG", {3, 5}, true, "changed 3-5", "changed"},
      {"its last line", "ABCDEFG", "ABCDXFG", {3, 5}, true, "changed 3-5", "changed"},
      {"a line removed", "ABCDEFG", "ABCEFG", {3, 5}, true, "changed 3-4", "changed"},
      {"split by a line", "ABCDEFG", "ABCXDEFG", {3, 4}, true, "changed 3-5", "changed"},
      {"split, and lines above added", "ABCDEFG", "YZABCXDEFG", {3, 4}, true, "changed 5-7", "changed"},
      {"its function is gone by name, its place is not",
       "ABCDEFG",
       "ABCXEFG",
       {3, 5},
       false,
       "changed 3-5",
       "gone"},
      {"indented", "ZYABXW", "ZY12XW", {3, 4}, true, "changed formatting 3-4", "changed"},
      {"indented in part", "ZYABXW", "ZYA2XW", {3, 4}, true, "changed formatting 3-4", "changed"},
      {"a blank line put in", "ABCDEFG", "ABC.DEFG", {3, 4}, true, "changed formatting 3-5", "changed"},
      {"indented and changed", "ZYABXW", "ZY1QXW", {3, 4}, true, "changed 3-4", "changed"},
      {"at the start of the file", "ABCDE", "XBCDE", {1, 2}, true, "changed 1-2", "changed"},
      {"at its end", "ABCDE", "ABCDX", {4, 5}, true, "changed 4-5", "changed"},
  });
}

TEST(FollowTest, RemovedLinesAreGoneUnlessTheirSymbolIsThere) {
  expect({
      {"with its function", "ABCDEFG", "ABEFG", {3, 4}, false, "gone", "gone"},
      {"without its function", "ABCDEFG", "ABEFG", {3, 4}, true, "changed", "changed"},
      {"and lines far above added", "ABCDEFG", "XYZABEFG", {3, 4}, false, "gone", "gone"},
      {"at the start of the file", "ABCDE", "CDE", {1, 2}, false, "gone", "gone"},
      {"at its end", "ABCDE", "ABC", {4, 5}, false, "gone", "gone"},
      {"the file is empty now", "ABCDE", "", {2, 3}, false, "gone", "gone"},
      {"the file is empty now, its symbols are not yet", "ABCDE", "", {2, 3}, true, "changed", "changed"},
  });
}

TEST(FollowTest, TwinsAreToldApartOrAmbiguous) {
  expect({
      {"the first, nothing changed", "ABKLCDEFKLGH", "ABKLCDEFKLGH", {3, 4}, true, "same", "same"},
      {"the second, nothing changed", "ABKLCDEFKLGH", "ABKLCDEFKLGH", {9, 10}, true, "same", "same"},
      {"the first, a line above added",
       "ABKLCDEFKLGH",
       "XABKLCDEFKLGH",
       {3, 4},
       true,
       "moved 4-5",
       "moved 4-5"},
      {"the second, a line above added",
       "ABKLCDEFKLGH",
       "XABKLCDEFKLGH",
       {9, 10},
       true,
       "moved 10-11",
       "moved 10-11"},
      {"the other one removed", "ABKLCDEFKLGH", "ABCDEFKLGH", {9, 10}, true, "moved 7-8", "moved 7-8"},
      {"itself removed", "ABKLCDEFKLGH", "ABCDEFKLGH", {3, 4}, true, "ambiguous", "ambiguous"},
      {"swapped with all that is around them",
       "ABKLCDEFKLGH",
       "EFKLGHABKLCD",
       {3, 4},
       true,
       "ambiguous",
       "moved 9-10"},
      {"the other one changed", "ABKLCDEFKLGH", "ABKLCDEFKXGH", {3, 4}, true, "same", "same"},
      {"itself changed", "ABKLCDEFKLGH", "ABKXCDEFKLGH", {3, 4}, true, "ambiguous", "ambiguous"},
      {"a copy made below: the diff keeps the first",
       "ABKLCDEFGH",
       "ABKLCDEFKLGH",
       {3, 4},
       true,
       "same",
       "same"},
      {"a copy made above, with other lines around it",
       "ABCDEFKLGH",
       "ABKLCDEFKLGH",
       {7, 8},
       true,
       "moved 9-10",
       "moved 9-10"},
      {"moved and copied", "ABKLCDEFGH", "ABCDKLEFKLGH", {3, 4}, true, "ambiguous", "ambiguous"},
      {"a copy right behind: either may be the new one",
       "ABKLCD",
       "ABKLKLCD",
       {3, 4},
       true,
       "ambiguous",
       "ambiguous"},
      {"the neighbours of a brace changed", "AB}CD}EF", "AX}YD}EF", {3, 3}, true, "ambiguous", "ambiguous"},
      {"a return among returns", "ArB}CrD}ErF}", "ArB}XCrD}ErF}", {6, 6}, true, "ambiguous", "ambiguous"},
      {"lines of one kind", "}}}}}}", "}}}}}}}", {3, 3}, true, "ambiguous", "ambiguous"},
  });
}

TEST(FollowTest, WholeFilesAreReplacedAndMerged) {
  expect({
      {"replaced", "ABCDE", "VWXYZ", {2, 3}, false, "changed 1-5", "gone"},
      {"replaced by a longer one with the function",
       "ABC",
       "TUVWXYZ",
       {1, 3},
       true,
       "changed 1-7",
       "changed"},
      {"of one line, unchanged", "A", "A", {1, 1}, true, "same", "same"},
      {"of one line, changed", "A", "X", {1, 1}, false, "changed 1-1", "gone"},
      {"in reverse order", "ABCDE", "EDCBA", {2, 2}, true, "moved 4-4", "moved 4-4"},
      {"two changes merged: lines above from one, below from the other",
       "ABCDEFG",
       "XABCDEYFG",
       {3, 4},
       true,
       "moved 4-5",
       "moved 4-5"},
      {"two changes merged, one of them to the lines",
       "ABCDEFG",
       "XABCQEFYG",
       {3, 4},
       true,
       "changed 4-5",
       "changed"},
  });
}

// What was changed and changed back is what was cited: only the two ends are compared.
TEST(FollowTest, ARevertedChangeIsNone) {
  const std::string cited = text_of("ABCDEFG");
  EXPECT_EQ(outcome(cited, text_of("ABXDEFG"), {3, 4}, true).with_text, "changed 3-4");
  EXPECT_EQ(outcome(cited, text_of("ABCDEFG"), {3, 4}, true).with_text, "same");
}

TEST(FollowTest, LineEndsAreNoChange) {
  for (const auto& [before, after] : {std::pair("\n", "\r\n"), std::pair("\r\n", "\n")}) {
    const auto [with_text, without_text] =
        outcome(text_of("ABCDEFG", before), text_of("XABCDEFG", after), {3, 4}, true);
    EXPECT_EQ(with_text, "moved 4-5");
    EXPECT_EQ(without_text, "moved 4-5");
  }
  std::string open = text_of("ABCD");
  open.pop_back();
  EXPECT_EQ(outcome(open, text_of("ABCD"), {3, 4}, true).with_text, "same");
  EXPECT_EQ(outcome(text_of("ABCD"), open, {3, 4}, true).without_text, "same");
}

TEST(FollowTest, AnyBytesAreText) {
  const std::string nul("one\0line of bytes\n", 18);
  const std::string broken = "\xff\xfe broken characters\n";
  const auto [with_text, without_text] =
      outcome(nul + broken + "end\n", "begin\n" + nul + broken + "end\n", {1, 2}, true);
  EXPECT_EQ(with_text, "moved 2-3");
  EXPECT_EQ(without_text, "moved 2-3");
}

// A file of equal lines takes the square of its size to search by hashes: it is given up, not finished.
TEST(FollowTest, AHugeFileOfEqualLinesIsGivenUp) {
  const std::string text = text_of(std::string(200000, 'r'));
  EXPECT_EQ(outcome(text, text + "}\n", {1, 50000}, true).without_text, "ambiguous");
}

// ---- Edits at random, whose outcome is known by construction.

class RandomEdits {
 public:
  explicit RandomEdits(unsigned seed) : random_(seed) {}

  std::size_t below(std::size_t limit) { return static_cast<std::size_t>(random_() % limit); }

  // Lines like those of a program: some of their own, each once, and many that stand everywhere. `own` counts
  // the lines of their own, which a number tells apart.
  std::vector<std::string> lines(std::size_t count, unsigned own_of_ten) {
    std::vector<std::string> made;
    for (std::size_t i = 0; i < count; ++i) {
      static const std::vector<std::string> common{
          "}", "", "  return 0;", "  } else {", "    break;", "  if (failed) return std::nullopt;"};
      made.push_back(below(10) < own_of_ten ? "  collect_all_of_the_values(" + std::to_string(++own_) + ");"
                                            : common[below(common.size())]);
    }
    return made;
  }

  // Removes and adds runs of lines outside `range`, and gives the place at which the range is then.
  LineRange edit_outside(std::vector<std::string>& text, LineRange range, unsigned own_of_ten) {
    for (std::size_t left = 1 + below(4); left > 0; --left) {
      const auto first = static_cast<std::size_t>(range.first - 1);  // in offsets, the end not included
      const auto last = static_cast<std::size_t>(range.last);
      const std::size_t gap = below(first + 1 + text.size() - last + 1);
      const bool is_above = gap <= first;
      const std::size_t at = is_above ? gap : last + (gap - first - 1);
      const auto place = text.begin() + static_cast<std::ptrdiff_t>(at);
      const std::size_t room = is_above ? first - at : text.size() - at;
      const std::size_t count = 1 + below(4);
      std::int64_t shift = 0;
      if (below(2) == 0) {
        const auto added = lines(count, own_of_ten);
        text.insert(place, added.begin(), added.end());
        shift = static_cast<std::int64_t>(count);
      } else {
        const auto removed = std::min(count, room);
        text.erase(place, place + static_cast<std::ptrdiff_t>(removed));
        shift = -static_cast<std::int64_t>(removed);
      }
      if (is_above) range = {range.first + shift, range.last + shift};
    }
    return range;
  }

  static std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
  }

 private:
  std::mt19937 random_;
  unsigned own_ = 0;
};

std::string at(LineRange cited, LineRange now) {
  return shown({cited == now ? CitationState::same : CitationState::moved, now, false}, cited);
}

LineRange random_range(RandomEdits& edits, const std::vector<std::string>& text) {
  const auto first = static_cast<std::int64_t>(1 + edits.below(text.size()));
  const auto most = std::min<std::int64_t>(6, static_cast<std::int64_t>(text.size()) - first + 1);
  return {first, first + static_cast<std::int64_t>(edits.below(static_cast<std::size_t>(most)))};
}

bool has_own_line(const std::vector<std::string>& text, LineRange range) {
  return std::any_of(text.begin() + (range.first - 1), text.begin() + range.last,
                     [](const std::string& line) { return line.starts_with("  collect"); });
}

TEST(FollowAtRandom, EditsElsewhereNeverLoseABlockWithALineOfItsOwn) {
  for (unsigned seed = 0; seed < 2000; ++seed) {
    RandomEdits edits(seed);
    const unsigned own_of_ten = 2 + seed % 9;
    auto text = edits.lines(5 + edits.below(40), own_of_ten);
    const LineRange cited = random_range(edits, text);
    if (!has_own_line(text, cited)) continue;
    const std::string before = RandomEdits::joined(text);
    const LineRange now = edits.edit_outside(text, cited, own_of_ten);
    const std::string after = RandomEdits::joined(text);
    const auto [with_text, without_text] = outcome(before, after, cited, true);
    const std::string truth = at(cited, now);
    EXPECT_EQ(with_text, truth) << "seed " << seed;
    EXPECT_EQ(without_text, truth) << "seed " << seed;
  }
}

// Blocks that stand in many places: they may be ambiguous, but are never somewhere else.
TEST(FollowAtRandom, EditsElsewhereNeverMisplaceABlockOfCommonLines) {
  int placed = 0;
  int all = 0;
  for (unsigned seed = 0; seed < 4000; ++seed) {
    RandomEdits edits(seed);
    const unsigned own_of_ten = 3 + seed % 5;
    auto text = edits.lines(10 + edits.below(40), own_of_ten);
    const LineRange cited = random_range(edits, text);
    if (has_own_line(text, cited)) continue;
    const std::string before = RandomEdits::joined(text);
    const LineRange now = edits.edit_outside(text, cited, own_of_ten);
    const std::string after = RandomEdits::joined(text);
    const auto [with_text, without_text] = outcome(before, after, cited, true);
    const std::string truth = at(cited, now);
    ++all;
    if (with_text != "ambiguous") {
      EXPECT_EQ(with_text, truth) << "seed " << seed << "\n" << before << "----\n" << after;
      ++placed;
    }
    if (without_text != "ambiguous") {
      EXPECT_EQ(without_text, truth) << "seed " << seed << "\n" << before << "----\n" << after;
    }
  }
  EXPECT_GT(placed, all / 2) << "most are told apart";
}

TEST(FollowAtRandom, AnEditWithinABlockNeverPassesForTheBlock) {
  for (unsigned seed = 0; seed < 1000; ++seed) {
    RandomEdits edits(seed);
    auto text = edits.lines(5 + edits.below(40), 8);
    const LineRange cited = random_range(edits, text);
    const auto own = std::find_if(text.begin() + (cited.first - 1), text.begin() + cited.last,
                                  [](const std::string& line) { return line.starts_with("  collect"); });
    if (own == text.begin() + cited.last) continue;
    const std::string before = RandomEdits::joined(text);
    if (edits.below(2) == 0) {
      text.erase(own);
    } else {
      *own = edits.lines(1, 10).front();
    }
    const std::string after = RandomEdits::joined(text);
    const auto [with_text, without_text] = outcome(before, after, cited, true);
    EXPECT_TRUE(with_text.starts_with("changed")) << "seed " << seed << ": " << with_text;
    EXPECT_EQ(without_text, "changed") << "seed " << seed;
  }
}

}  // namespace
}  // namespace ossilar::workers::wiki
