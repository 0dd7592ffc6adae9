#include "ossilar/workers/wiki/grounding/grounding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/workers/wiki/grounding/excerpts.h"
#include "support/source_tree.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::tree_of;
using ossilar::testing::TreeFile;
using source::FileKind;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

std::string lines(int count, const std::string& text = "line") {
  std::string out;
  for (int i = 1; i <= count; ++i) out += text + " " + std::to_string(i) + "\n";
  return out;
}

std::optional<std::string> read_nothing(const std::string&) { return std::nullopt; }

PagePlan module_page(const std::string& id, std::vector<std::string> files = {}) {
  PagePlan page;
  page.page_id = id;
  page.title = "Title of " + id;
  page.description = "About " + id + ".";
  page.type = "module";
  page.source_files = std::move(files);
  return page;
}

PagePlan topic(std::vector<std::string> related, std::vector<std::string> children = {}) {
  PagePlan page = module_page("t");
  page.type = "topic";
  page.related_pages = std::move(related);
  page.children = std::move(children);
  return page;
}

TEST(Grounding, TellsAnAuthorEverythingInOrder) {
  const source::SourceIndex index =
      tree_of({{"m/a|b.c", 90, FileKind::text, {{"run", "function", "", 50}}},
               {"m/util.h", 9, FileKind::text, {{"kMax", "macro", "", 2}, {"Util", "struct", "", 4}}}});
  PagePlan plan = module_page("m", {"m/a|b.c", "m/util.h"});
  plan.parent = "top";
  plan.children = {"m/sub"};
  plan.related_pages = {"other", "no such page"};
  const Plans plans{plan, module_page("top"), module_page("m/sub"), module_page("other")};
  const auto read = [](const std::string& path) -> std::optional<std::string> {
    return path == "m/util.h" ? "```\n" + lines(8) : lines(90);
  };
  const Grounding grounding = gather_grounding(plan, plans, index, "Mention the cache.", read);
  std::size_t at = 0;
  for (const char* part :
       {"# Grounding for Title of m (m)\n", "About m.", "Explains one module", "`## Responsibility`",
        "100 to 1200 words", "[m/a|b.c:L1-L20]", "Mention the cache.", "- above: Title of top (top)",
        "- below: Title of m/sub (m/sub)", "- related: Title of other (other)", "| m/a\\|b.c | C | 90 |",
        "| m/util.h | C | 9 |", "`run` function L50", "`Util` struct L4", "### m/a|b.c\n\n```\n1  line 1\n",
        "50  line 50", "90  line 90\n```\n", "### m/util.h\n\n````\n1  ```\n"}) {
    const std::size_t found = grounding.text.find(part, at);
    ASSERT_NE(found, std::string::npos) << part << " is missing or out of order in:\n" << grounding.text;
    at = found;
  }
  EXPECT_THAT(grounding.text, Not(HasSubstr("no such page")));
  EXPECT_THAT(grounding.files, ElementsAre("m/a|b.c", "m/util.h"));
  ASSERT_EQ(grounding.symbols.size(), 3U);
  EXPECT_EQ(utils::json_text(grounding.symbols[1]),
            R"({"name": "Util", "kind": "struct", "file": "m/util.h", "line": 4})")
      << "a type before a macro";
  EXPECT_EQ(gather_grounding(plan, plans, index, "Mention the cache.", read).text, grounding.text);
}

TEST(Grounding, StaysWithinItsBudget) {
  std::vector<TreeFile> tree;
  std::vector<std::string> paths;
  std::vector<PagePlan> pages;
  for (int i = 0; i < 3000; ++i) {
    paths.push_back("src/" + std::string(100, 'x') + std::to_string(i) + ".c");
    tree.push_back({paths.back(), 500, FileKind::text, {{"f" + std::to_string(i), "function", "", 200}}});
    pages.push_back(module_page("p" + std::to_string(i)));
  }
  PagePlan plan = module_page("all", paths);
  plan.type = "architecture";
  plan.description = std::string(20000, 'd');
  pages.push_back(plan);
  const std::string hostile = lines(300, std::string(150, '`')) + std::string(5000000, 'y');
  const Grounding grounding =
      gather_grounding(plan, Plans(pages), tree_of(tree), std::string(100000, 's'),
                       [&](const std::string&) -> std::optional<std::string> { return hostile; });
  EXPECT_LE(grounding.text.size(), kGroundingBudget);
  EXPECT_GE(grounding.text.size(), kGroundingBudget / 2);
  EXPECT_EQ(grounding.symbols.size(), 60U);
  for (const char* part :
       {"more files\n", "more pages\n", "(cut)", "## Excerpts", "- module: Title of p0 (p0)"}) {
    EXPECT_THAT(grounding.text, HasSubstr(part));
  }
}

TEST(Grounding, BorrowsSourcesFromThePagesAroundIt) {
  const source::SourceIndex index = tree_of({{"README.md"}, {"a.c"}, {"b.c"}, {"c.c"}});
  const Plans plans{module_page("a", {"a.c", "b.c"}), module_page("b", {"b.c"}), module_page("c", {"c.c"})};
  struct Row {
    const char* why;
    PagePlan plan;
    std::vector<std::string> files;
  };
  const std::vector<Row> rows = {
      {"its own alone", module_page("c", {"c.c"}), {"c.c"}},
      {"of related pages, each once", topic({"a", "b", "gone"}), {"a.c", "b.c"}},
      {"of children", topic({}, {"c"}), {"c.c"}},
      {"of the overview when there is nothing around it", topic({}), {"README.md"}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(gather_grounding(row.plan, plans, index, "", read_nothing).files, row.files) << row.why;
  }
  const Grounding empty = gather_grounding(topic({}), plans, source::SourceIndex(), "", read_nothing);
  EXPECT_TRUE(empty.files.empty());
  EXPECT_THAT(empty.text, HasSubstr("# Grounding for Title of t (t)"));
}

TEST(Excerpt, IsNeverLongerThanItsRoom) {
  source::SourceFile file;
  file.path = "a.md";
  std::string backticks;
  std::string gaps;
  std::vector<source::Symbol> symbols;
  for (int i = 0; i < 400; ++i) {
    backticks += std::string(150, '`') + "\n";
    gaps += "line of some length " + std::to_string(i) + "\n";
    if (i % 20 == 10) symbols.push_back({"f" + std::to_string(i), "function", "", i});
  }
  for (std::size_t room = 450; room < 3000; room += 23) {
    EXPECT_LE(file_excerpt(file, backticks, room).size(), room);
    source::SourceFile with_symbols = file;
    with_symbols.symbols = source::SymbolList(symbols);
    EXPECT_LE(file_excerpt(with_symbols, gaps, room).size(), room);
  }
}

TEST(Excerpt, ShowsTheHeadAndWhatSurroundsSymbols) {
  source::SourceFile file;
  file.path = "a.c";
  file.symbols = source::SymbolList({{"late", "function", "", 500}, {"x", "variable", "", 700}});
  const std::string licence = "/* Copyright 2020\n * more\n */\n\n";
  const std::string text = licence + lines(900);
  const std::string excerpt = file_excerpt(file, text, 2500);
  EXPECT_THAT(excerpt, HasSubstr("### a.c\n\n```\n5  line 1\n")) << "the licence is left out, numbers stay";
  EXPECT_THAT(excerpt, HasSubstr("...\n496  line 492\n")) << "from above the symbol";
  EXPECT_LE(excerpt.size(), 2500U);
  EXPECT_EQ(file_excerpt(file, text, 300), "") << "no room for anything worth showing";
  EXPECT_EQ(file_excerpt(file, "", 2500), "");
  file.symbols = source::SymbolList({{"beyond", "function", "", 9999}, {"zero", "function", "", 0}});
  EXPECT_THAT(file_excerpt(file, lines(3), 2500), HasSubstr("1  line 1\n2  line 2\n3  line 3\n```\n"));
  EXPECT_THAT(file_excerpt(file, std::string(199, 'a') + "\u00e9\n", 2500), HasSubstr("a\u2026\n"))
      << "whole characters";
}

}  // namespace
}  // namespace ossilar::workers::wiki
