#include "ossilar/utils/text.h"

#include <gmock/gmock.h>
#include <utf8proc.h>

#include "ossilar/utils/fold.h"

namespace ossilar::utils {
namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;

TEST(Utf8, FindsTheFirstBadByte) {
  struct Row {
    std::string text;
    std::optional<std::size_t> bad;
    const char* why;
  };
  const std::vector<Row> rows{
      {"a\0b"s, {}, "NUL is a character"},
      {"\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", {}, "ends of ranges"},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", {}, "the first and the last of four bytes"},
      {"a\x80", 1, "lone continuation"},
      {"ab\xC0\xAF", 2, "overlong in two bytes"},
      {"\xE0\x9F\xBF", 0, "overlong in three bytes"},
      {"\xF0\x8F\xBF\xBF", 0, "overlong in four bytes"},
      {"x\xED\xA0\x80", 1, "first surrogate"},
      {"x\xED\xBF\xBF", 1, "last surrogate"},
      {"\xF4\x90\x80\x80", 0, "above U+10FFFF"},
      {"ok\xE2\x82", 2, "truncated at the end"},
      {"ok\xE2\x82q", 2, "truncated in the text"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(first_invalid_utf8(row.text), row.bad) << row.why;
    EXPECT_EQ(valid_utf8(row.text) == row.text, !row.bad) << row.why;
  }
}

TEST(Strip, TakesOffAllWhiteSpaceOfUnicodeAndNothingElse) {
  const std::u32string white =
      U"\t\n\v\f\r \u0085\u00A0\u1680\u2000\u2001\u2002\u2003\u2004\u2005\u2006\u2007\u2008\u2009\u200A"
      U"\u2028\u2029\u202F\u205F\u3000";
  for (char32_t c = 0; c < 0x3100; ++c) {
    std::string bytes(4, '\0');
    bytes.resize(static_cast<std::size_t>(utf8proc_encode_char(
        static_cast<utf8proc_int32_t>(c), reinterpret_cast<utf8proc_uint8_t*>(bytes.data()))));
    const std::string inner = join({"a", "b"}, bytes);
    const std::string text = join({"", "", inner, ""}, bytes);
    const bool is_white = white.find(c) != std::u32string::npos;
    ASSERT_EQ(strip(text), is_white ? inner : text) << std::uint32_t{c};
    ASSERT_EQ(split_words(text).size(), is_white ? 2 : 1) << std::uint32_t{c};
  }
  EXPECT_EQ(strip(" \x85 "), "\x85") << "a byte that is not UTF-8 is no white space";
  EXPECT_EQ(strip("\xE3\x80\x80"), "");
}

TEST(Lines, EndAtLineFeedsAlone) {
  EXPECT_EQ(normalise_line_ends("a\r\nb\rc\n\r\r\nd\r"), "a\nb\nc\n\n\nd\n");
  EXPECT_THAT(split_lines("a\n\nb"), ElementsAre("a", "", "b"));
  EXPECT_THAT(line_offsets("a\n\nbc"), ElementsAre(0, 2, 3, 5));
  for (const std::string_view text : {"", "\n", "a", "a\n", "\n\n", "a\nb"}) {
    EXPECT_EQ(count_lines(text), split_lines(text).size()) << text;
    EXPECT_EQ(line_offsets(text).size(), count_lines(text) + 1) << text;
  }
}

TEST(Printable, ShowsWhatATerminalWouldObey) {
  EXPECT_EQ(printable("\x1B[31mred\tx\n\r\x7F\b\0|\xC2\x9B"s), "<1B>[31mred\tx\n<0D><7F><08><00>|<9B>");
  EXPECT_EQ(printable("\xE2\x80\xAE\xE2\x81\xA6\xD8\x9C"), "<U+202E><U+2066><U+061C>");
  EXPECT_EQ(printable("\xFFz\xE2\x82"), "<FF>z<E2><82>");
  EXPECT_EQ(printable("Größe 漢字 🎉\u00A0"), "Größe 漢字 🎉\u00A0");
}

TEST(Fold, IgnoresCaseBlanksAndComposition) {
  using Row = std::pair<const char*, const char*>;
  for (const auto& [a, b] : {Row("How  it\tWorks", " how it works "), Row("Straße", "STRASSE"),
                             Row("ΣΊΣ", "σίς"), Row("Cafe\u0301", "Café"), Row("a\u00A0b", "A b")}) {
    EXPECT_EQ(fold(a), fold(b));
  }
  EXPECT_NE(fold("I"), fold("ı")) << "no Turkish rules";
  EXPECT_EQ(fold(" A\xFF  B "), "A\xFF B") << "not UTF-8";
}

TEST(IsoTime, IsInUtc) { EXPECT_EQ(iso_time(1767323045), "2026-01-02T03:04:05Z"); }

}  // namespace
}  // namespace ossilar::utils
