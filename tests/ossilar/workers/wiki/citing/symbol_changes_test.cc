#include "ossilar/workers/wiki/citing/symbol_changes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ossilar::workers::wiki {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

source::Symbol function(const char* name, std::int64_t line) {
  return {.name = name, .kind = "function", .scope = "", .line = line};
}

TEST(SymbolChangesTest, NamesWhatCameWentAndChanged) {
  const LineText before("int a() {\n  return 1;\n}\nint b() { return 2; }\nint c();\nint c(int);\n");
  const LineText after("// new\nint a() {\n    return 1;\n}\nint d();\nint c();\nint c(long);\n");
  const auto changes =
      symbol_changes(before, {function("a", 1), function("b", 4), function("c", 5), function("c", 6)}, after,
                     {function("a", 2), function("d", 5), function("c", 6), function("c", 7)});
  EXPECT_THAT(changes.added, ElementsAre("d"));
  EXPECT_THAT(changes.removed, ElementsAre("b"));
  EXPECT_THAT(changes.changed, ElementsAre("c")) << "a only moved and was indented";
}

TEST(SymbolChangesTest, LinesThatAreNotThereChangeNothing) {
  const LineText text("x\n");
  const auto changes = symbol_changes(text, {function("a", 1), function("b", 9)}, text, {function("a", 1)});
  EXPECT_THAT(changes.removed, ElementsAre("b"));
  EXPECT_THAT(changes.changed, IsEmpty());
}

}  // namespace
}  // namespace ossilar::workers::wiki
