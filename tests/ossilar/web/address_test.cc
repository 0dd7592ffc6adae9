#include "ossilar/web/address.h"

#include <gtest/gtest.h>

namespace ossilar::web {
namespace {

TEST(AddressTest, DecodesWhatIsWellFormedAlone) {
  const struct {
    const char* text;
    std::optional<std::string> decoded;
    const char* why;
  } kRows[] = {
      {"a/b.html", "a/b.html", "nothing to do"},
      {"a%20b%2Fc", "a b/c", "both cases of digits"},
      {"%c3%A4", "\xC3\xA4", "a character of two bytes"},
      {"%", std::nullopt, "cut"},
      {"%4", std::nullopt, "cut after one digit"},
      {"%zz", std::nullopt, "no digits"},
      {"a%00b", std::nullopt, "NUL ends a name for the system"},
      {"%ff", std::nullopt, "not UTF-8"},
      {"%c0%ae", std::nullopt, "an overlong dot"},
      {"%252e", "%2e", "decoded once only"},
  };
  for (const auto& row : kRows) EXPECT_EQ(decoded(row.text), row.decoded) << row.why;
}

TEST(AddressTest, EncodedTextComesBack) {
  for (const std::string text : {"src/a b#?.cc", "100%", "\xC3\xA4/[x].h", "a:b&c\"<"}) {
    EXPECT_EQ(decoded(encoded_path(text)), text);
    EXPECT_EQ(name_below("source/", *decoded(source_address(text))), text);
    EXPECT_EQ(encoded_path(text).find_first_of("\"<>#?& "), std::string::npos) << text;
  }
}

TEST(AddressTest, ResolvesLinksWithinTheRootAlone) {
  const struct {
    const char* target;
    std::optional<std::string> path;
  } kRows[] = {
      {"c.md", "wiki/pages/c.md"},       {"./x/../c.md", "wiki/pages/c.md"},
      {"../../src/a.cc", "src/a.cc"},    {"../../../etc/passwd", std::nullopt},
      {"a/../../../../x", std::nullopt}, {"", "wiki/pages"},
  };
  for (const auto& row : kRows)
    EXPECT_EQ(resolved_path("wiki/pages/a.md", row.target), row.path) << row.target;
}

TEST(AddressTest, LinksFromAFolderGoUp) {
  EXPECT_EQ(way_to_root("index.html"), "");
  EXPECT_EQ(way_to_root("pages/a/b.html"), "../../");
  EXPECT_EQ(name_below("pages/", "pages/.html"), std::nullopt);
  EXPECT_EQ(name_below("pages/", "source/a.html"), std::nullopt);
}

}  // namespace
}  // namespace ossilar::web
