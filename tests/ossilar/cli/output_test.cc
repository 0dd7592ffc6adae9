#include "ossilar/cli/output.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace ossilar::cli {
namespace {

TEST(Output, AlignsColumnsByWhatATerminalShowsAndHidesNoControlCharacter) {
  Output output(false, ColorChoice::never);
  ::testing::internal::CaptureStdout();
  output.table({"A", "B"}, {{{"日本"}, {"x"}}, {{"e\u0301"}, {"y"}}, {{"\x1b[2J"}, {"z"}}, {{"last"}, {""}}});
  ASSERT_TRUE(output.flush());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "A        B\n日本     x\ne\u0301        y\n<1B>[2J  z\nlast\n");
}

std::string printed(bool json, ColorChoice color, const std::function<void(Output&)>& print) {
  Output output(json, color);
  ::testing::internal::CaptureStdout();
  print(output);
  output.flush();
  return ::testing::internal::GetCapturedStdout();
}

TEST(Output, StylesOnlyWhenAsked) {
  const auto print = [](Output& output) { output.line(output.styled(Style::bad, "no\r") + "\x1b[32m!"); };
  EXPECT_EQ(printed(false, ColorChoice::always, print), "\x1b[31mno<0D>\x1b[0m<1B>[32m!\n");
  EXPECT_EQ(printed(false, ColorChoice::never, print), "no<0D><1B>[32m!\n");
}

TEST(Output, ALineIsOneLineAndHasNoControlCharacterWhateverItIsMadeOf) {
  const std::string hostile = "a\nb\x1b\x7f\u0085\u202e\u2066";
  const std::string shown = "a b<1B><7F><85><U+202E><U+2066>";
  EXPECT_EQ(printed(false, ColorChoice::never, [&](Output& output) { output.line(hostile); }), shown + "\n");
  EXPECT_EQ(
      printed(false, ColorChoice::never,
              [&](Output& output) { output.line("x " + output.styled(Style::bold, hostile) + hostile); }),
      "x " + shown + shown + "\n");
  EXPECT_EQ(printed(false, ColorChoice::never, [&](Output& output) { output.table({"A"}, {{{hostile}}}); }),
            "A\n" + shown + "\n");
}

TEST(Output, ADocumentSaysTheSameWithoutSuchCharacters) {
  const Map value{{"\u202ea", "\x1b\x7f\u009b\u202e\u2066\u00e9\n"}};
  const std::string text = printed(true, ColorChoice::never, [&](Output& output) { output.document(value); });
  EXPECT_EQ(text, "{\"\\u202ea\": \"\\u001b\\u007f\\u009b\\u202e\\u2066\u00e9\\n\"}\n");
  EXPECT_EQ(Map::parse(text), value);
  EXPECT_EQ(printed(true, ColorChoice::never, [](Output& output) { output.document(Map{"caf\xe9"}); }),
            "[\"caf\uFFFD\"]\n")
      << "a path may be no UTF-8";
}

}  // namespace
}  // namespace ossilar::cli
