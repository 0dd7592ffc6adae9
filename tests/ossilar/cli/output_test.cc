#include "ossilar/cli/output.h"

#include <gtest/gtest.h>

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

TEST(Output, StylesOnlyWhenAsked) {
  EXPECT_EQ(Output(false, ColorChoice::always).styled(Style::bad, "no\r"), "\x1b[31mno<0D>\x1b[0m");
  EXPECT_EQ(Output(false, ColorChoice::never).styled(Style::bad, "no"), "no");
}

}  // namespace
}  // namespace ossilar::cli
