// The small modules about a page's text: titles, digests, findings, words, refusals.
#include <gmock/gmock.h>

#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/digests.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/prose_words.h"
#include "ossilar/workers/wiki/sections.h"
#include "ossilar/workers/wiki/type_lint.h"

namespace ossilar::workers::wiki {
namespace {

using ::testing::ElementsAre;
using Strings = std::vector<std::string>;

const Plans& plans() {
  const auto plan = [](const char* id, const char* title, const char* type) {
    PagePlan made;
    made.page_id = id;
    made.title = title;
    made.type = type;
    if (made.page_id == "store/sql") made.parent = "store";
    if (made.page_id == "locks") made.related_pages = {"store/sql"};
    return made;
  };
  static const Plans instance{plan("overview", "Overview", "overview"), plan("store", "Store", "module"),
                              plan("store/sql", "SQL", "module"), plan("locks", "Locks", "topic")};
  return instance;
}

TEST(Retitle, RefusesWhatCannotBeATitle) {
  const store::StoredRows rows{
      {"store", Map{{"title", "Storage"}, {"build_cache", R"({"agent_title": "Storage"})"}}}};
  struct Row {
    std::optional<std::string> title;
    std::string settled;  // "" for a refusal
  };
  for (const Row& row : std::vector<Row>{{std::nullopt, "Storage"},
                                         {"", "Storage"},
                                         {"  New name\n", "New name"},
                                         {"STORAGE", "STORAGE"},
                                         {"Store", "Store"},
                                         {" \t", ""},
                                         {"a\nb", ""},
                                         {"a[b]", ""},
                                         {"a\x1B", ""},
                                         {"sql", ""},
                                         {std::string(200, 'x'), std::string(200, 'x')},
                                         {std::string(201, 'x'), ""}}) {
    PagePlan plan = *plans().find("store");
    const Answer refusal = retitle(plan, row.title, plans(), rows);
    EXPECT_EQ(refusal.empty() ? plan.title : "", row.settled) << row.title.value_or("none");
    EXPECT_EQ(utils::string_member(refusal, "page_id"), row.settled.empty() ? "store" : "");
  }
  EXPECT_THAT(renamed({"A", "B"}, {"C", std::nullopt, "A", ""}, "B"), ElementsAre("A", "C"));
}

TEST(SameHeading, IgnoresMarksCaseAndMarkup) {
  for (const char* other : {"How it works", "## how  it works", "### *How* it `works`", "HOW IT WORKS "}) {
    EXPECT_TRUE(same_heading("How it works", other)) << other;
  }
  EXPECT_FALSE(same_heading("How it works", "How it worked"));
  EXPECT_FALSE(same_heading("#define", "define")) << "marks are followed by a blank";
}

TEST(Digest, ChangesWithTheOpeningsOfSections) {
  const std::string body = "## A\n\nFirst *words* [a.c:L7].\n\nMore.\n\n## A\n\n- second\n";
  const Map digest = _page_digest(plans()[1], body, {});
  EXPECT_EQ(utils::string_member(digest, "title"), "Store");
  for (const auto& [other, is_same] :
       std::map<std::string, bool>{{"## A\n\nFirst words.\n\nLess.\n\n## A\n\n* second\n\nThird.\n", true},
                                   {"## A\n\nFirst words [a.c:L1-L2] [b.c:L3].\n\n## A\n\n* second\n", true},
                                   {"## B\n\nFirst *words*.\n\nMore.\n\n## A\n\n- second\n", false},
                                   {"## A\n\nLast *words*.\n\nMore.\n\n## A\n\n- second\n", false},
                                   {"## A\n\nFirst *words*.\n", false}})
    EXPECT_EQ(same_abstract(digest, _page_digest(plans()[1], other, {})), is_same) << other;
  const Map former = Map::parse(R"({"abstract": [{"heading": "A", "opening": "First words [a.c:L7]."},
      {"heading": "A", "opening": "second"}], "headings": ["A", "A"]})");
  store::PageDigests before{{"a", former}, {"b", digest}, {"gone", digest}};
  store::PageDigests after{{"a", digest}, {"b", Map{{"abstract", 1}}}, {"new", digest}};
  EXPECT_THAT(changed_abstracts(before, after), ElementsAre("b", "gone", "new"));
  EXPECT_EQ(synthesis_dependents(plans(), {"store/sql"}),
            (std::map<std::string, Strings>{
                {"locks", {"store/sql"}}, {"overview", {"store/sql"}}, {"store", {"store/sql"}}}));
}

TEST(Findings, NameWhatAPageLacks) {
  const auto kinds = [](const Map& row, const std::string& markdown) {
    std::string out;
    for (const Map& finding : page_type_findings(row, markdown))
      out += finding.at("kind").get<std::string>() + " ";
    return out;
  };
  const Map row{
      {"page_id", "store"}, {"level", 1}, {"build_cache", {{"outline", {"how IT works", "Responsibility"}}}}};
  EXPECT_EQ(kinds(row, "# Store\n\nSummary.\n\n## How it works\n"), "");
  EXPECT_EQ(kinds(row, "# Store\n\n## How it works\n\n# Again\n\n```\n"),
            "no-summary title-heading open-block ");
  EXPECT_EQ(kinds(Map{{"page_id", "overview"}, {"level", 0}}, "# O\n\n" + std::string(kLargePage, 'x')),
            "missing-section missing-section page-size ");
}

TEST(ProseWords, CountNeitherCodeNorHtmlNorCitations) {
  EXPECT_EQ(prose_words("## Two words\n\nthree *four* `five` [six](u) [a.cc:L1-L2] -- "
                        "漢字\n\n```\ncode\n```\n\n<p>html</p>\n"),
            7);
  PageType type;
  type.least_words = 10;
  type.most_words = 20;
  EXPECT_FALSE(word_budget_warning(type, 10) || word_budget_warning(type, 20));
  EXPECT_TRUE(word_budget_warning(type, 9) && word_budget_warning(type, 21));
}

TEST(Refusals, SayWhatToDo) {
  EXPECT_EQ(not_planned("stor", plans())["similar"], Map::parse(R"(["store", "store/sql"])"));
  EXPECT_EQ(not_planned("ovreview", plans())["similar"], Map::parse(R"(["overview"])"));
  EXPECT_EQ(not_planned("zzz", plans())["similar"], Map::array());
  EXPECT_EQ(refuse_request({"p", std::string(kLargestContent, 'x'), {}, {}}), std::nullopt);
  EXPECT_TRUE(refuse_request({"p", std::string(kLargestContent + 1, 'x'), {}, {}}).has_value());
  EXPECT_EQ(utils::string_member(refuse_request({"p", "", {}, "a\xFF"}).value(), "error"),
            "title is not UTF-8: byte 0xFF at offset 1 (line 1)");
}

}  // namespace
}  // namespace ossilar::workers::wiki
