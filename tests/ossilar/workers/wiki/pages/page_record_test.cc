// The record that each page carries about itself.
#include "ossilar/workers/wiki/pages/page_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/utils/markdown.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/finalize.h"

namespace ossilar::workers::wiki {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

KnownClaim claim(const std::string& path, std::int64_t first, const std::string& text, FileVersion file) {
  return {
      .citation = {path, first, first + 2},
      .heading = {},
      .says = "81f2a37c",
      .print = {.text = text, .bare = text, .near = "^-11-$", .symbol = "a::b", .twins = 2, .file = file}};
}

PageRecord full_record() {
  return {
      .type = "module",
      .title = "A --> B \"quoted\" \u00e9",
      .agent_title = "A --> B",
      .former_titles = {"One", "Two"},
      .source_hashes = {{"src/a.cc", "11"}, {"src/we-->ird.cc", ""}, {"ossilar.toml [steering]", "22"}},
      .claims = {claim("src/a.cc", 1, "0123", {"aa", "bb", "cc"}), claim("src/c.cc", 7, "", {}),
                 claim("src/b.cc", 7, "4567", {"dd", "", ""})},
      .confirmations = {{{"confirmed", "2026-01-02T03:04:05Z"}, {"commit", "cc"}, {"section", "A --> B"}}},
      .former_ids = {"one", "core/two"}};
}

void expect_same(const PageRecord& a, const PageRecord& b) { EXPECT_EQ(record_text(a), record_text(b)); }

TEST(PageRecord, IsReadBackFromThePageAndInvisibleInIt) {
  const PageRecord record = full_record();
  PagePlan plan;
  plan.title = "T";
  const std::string page = assemble_page(plan, split_text("Text.\n"), {}, {}, record_text(record)).markdown;
  ASSERT_TRUE(record_of(page));
  expect_same(*record_of(page), record);
  EXPECT_THAT(utils::prose_text(page), Not(HasSubstr("module"))) << "a forge shows none of it";
  EXPECT_EQ(split_authored(page, "").text(), "Text.\n");
  expect_same(*record_of(page + "By hand.\n"), record);
  EXPECT_EQ(without_record(page + "By hand.\n"), without_record(page) + "By hand.\n");

  const std::string stripped = page.substr(0, page.size() - 1);  // some editors take the last line feed
  ASSERT_TRUE(record_of(stripped));
  expect_same(*record_of(stripped), record);
  EXPECT_EQ(without_record(stripped), without_record(page));
}

TEST(PageRecord, IsReplacedInItsPlaceAndMayTellOfFormerIdsAlone) {
  PageRecord ids;
  ids.former_ids = {"one"};
  const std::string page = "# T\n\nText.\n\n<!-- ossilar:generated -->\n\n[A]: a.md\n";
  const std::string with_ids = page + "\n<!-- ossilar:record\n{\"former_id\": \"one\"}\n-->\n";
  EXPECT_EQ(with_record_replaced(page, ids), with_ids);
  EXPECT_EQ(with_record_replaced(with_ids, full_record()), page + "\n" + record_text(full_record()));
  EXPECT_EQ(with_record_replaced(with_record_replaced(page, full_record()), ids), with_ids);
  EXPECT_FALSE(record_of(with_ids)->tells_of_text());
  EXPECT_EQ(record_of(with_ids)->former_ids, ids.former_ids);
}

TEST(PageRecord, ClaimsKeepTheirVersionsAndEarlierOnesGetThatOfTheirSource) {
  const auto record = record_of("# T\n\n<!-- ossilar:generated -->\n\n" + record_text(full_record()));
  ASSERT_TRUE(record);
  ASSERT_EQ(record->claims.size(), 3U);
  EXPECT_EQ(record->claims[0].print, full_record().claims[0].print);
  EXPECT_EQ(record->claims[2].print.file.hash, "dd");
  const auto earlier = record_of(
      "# T\n\n<!-- ossilar:generated -->\n\n<!-- ossilar:record\n{\"type\": \"m\"}\n"
      "{\"source\": \"a\", \"hash\": \"0123456789abcdef0123\"}\n{\"cites\": \"a:L1\", \"text\": "
      "\"77\"}\n-->\n");
  ASSERT_TRUE(earlier);
  ASSERT_EQ(earlier->claims.size(), 1U);
  EXPECT_EQ(earlier->claims[0].print.text, "77");
  EXPECT_EQ(earlier->claims[0].print.file.hash, "0123456789abcdef");
}

TEST(PageRecord, AnEditedRecordIsReadAsFarAsPossible) {
  const std::string marked = "# T\n\n<!-- ossilar:generated -->\n\n";
  const std::string begin = marked + "<!-- ossilar:record\n";
  const std::string whole = "<!-- ossilar:record\n{\"type\": \"m\", \"title\": \"T\"}\n-->\n";
  const std::string quoted = "```\n<!-- ossilar:record\n{\"type\": \"q\", \"title\": \"Q\"}\n-->\n```\n";
  const struct {
    const char* why;
    std::string text;
    bool is_there;
  } rows[] = {
      {"none", "# T\n", false},
      {"no end", begin + "{\"type\": \"m\"}\n", false},
      {"in the middle of a line", marked + "x <!-- ossilar:record\n-->\n", false},
      {"quoted in a page without a generated part", "# T\n\n" + quoted, false},
      {"above the generated part", "# T\n\n" + whole + "\n<!-- ossilar:generated -->\n", false},
      {"one quoted by the author, and the page's own", "# T\n\n" + quoted + "\n" + marked + whole, true},
      {"the page's own, and one that a hand quotes below it", marked + whole + "\n" + quoted, true},
      {"an end without a line feed", marked + whole.substr(0, whole.size() - 1), true},
      {"lines that are no facts",
       begin + "{\"type\": \"m\", \"title\": \"T\"}\nx\n[]\n{}\n{\"new\": 1}\n-->\n", true},
      {"a citation that is none", begin + "{\"type\": \"m\", \"title\": \"T\"}\n{\"cites\": \"a\"}\n-->\n",
       true},
  };
  for (const auto& [why, text, is_there] : rows) {
    const auto record = record_of(text);
    EXPECT_EQ(record.has_value(), is_there) << why;
    PageRecord expected;
    expected.type = "m";
    expected.title = "T";
    if (record) expect_same(*record, expected);
  }
}

}  // namespace
}  // namespace ossilar::workers::wiki
