#include "ossilar/workers/wiki/diagrams.h"
#include "ossilar/workers/wiki/plan/page_diagrams.h"
#include "ossilar/workers/wiki/plans.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace ossilar::workers::wiki {
namespace {

PagePlan page(const std::string& id, const std::string& type = "module") {
  PagePlan plan;
  plan.page_id = plan.title = id;
  plan.type = type;
  return plan;
}

// Pages whose parents follow from their ids.
Plans tree() {
  std::vector<PagePlan> pages{page("overview", "overview"), page("topic", "topic")};
  for (const std::string id : {"a", "a/x", "a/y", "a/y/z", "b", "b/x", "c"}) {
    pages.push_back(page(id));
    pages.back().parent = id.substr(0, id.size() == 1 ? 0 : id.size() - 2);
    for (PagePlan& above : pages) {
      if (above.page_id == pages.back().parent) above.children.push_back(id);
    }
  }
  return Plans(pages);
}

// The diagram texts on one line, without their common first line.
std::string texts(const std::vector<Diagram>& diagrams) {
  std::string out;
  for (const auto& [caption, text] : diagrams) {
    EXPECT_EQ(text.substr(0, 13), "flowchart LR\n") << caption;
    out += text.substr(13) + "|";
  }
  std::replace(out.begin(), out.end(), '\n', ' ');
  return out;
}

TEST(PageDiagrams, WhatAPageShows) {
  const ModuleGraph graph({{"a/x", "a/y/z"},
                           {"a/x", "b/x"},
                           {"a/y", "a/y/z"},
                           {"a/y/z", "c"},
                           {"b/x", "b"},
                           {"b/x", "a"},
                           {"c", "a/x"}});
  const std::string top =
      R"(  n0["a"]   n1["b"]   n2["c"]   n0 --> n1   n0 --> n2   n1 --> n0   n2 --> n0 |)";
  const struct {
    const char* page_id;
    std::string expected;
    const char* why;
  } rows[] = {
      {"overview", top, "pages below stand as their top module"},
      {"a", top + R"(  n0["a/x"]   n1["a/y"]   n0 --> n1 |)", "with all below it; then between its children"},
      {"a/y", R"(  n0["a/x"]   n1["a/y"]   n2["c"]   n0 --> n1   n1 --> n2 |)",
       "siblings stand for themselves"},
      {"b/x", R"(  n0["a"]   n1["b"]   n2["b/x"]   n0 --> n2   n2 --> n0   n2 --> n1 |)", "a page above"},
      {"topic", "", "no diagram for other types"},
  };
  const Plans plans = tree();
  for (const auto& row : rows) {
    EXPECT_EQ(texts(page_diagrams(*plans.find(row.page_id), plans, graph)), row.expected) << row.why;
  }
  for (const char* id : {"overview", "b"}) {
    EXPECT_EQ(texts(page_diagrams(*plans.find(id), plans, ModuleGraph({ModuleGraph::Edge("a", "a/x")}))), "")
        << "nothing to see";
  }
}

TEST(PageDiagrams, ParentsInACycleEnd) {
  std::vector<PagePlan> pages{page("a"), page("b"), page("c"), page("overview", "overview")};
  pages[0].parent = pages[1].page_id;
  pages[1].parent = pages[0].page_id;
  pages[0].children = pages[1].children = {"a", "b"};
  const Plans plans(pages);
  for (std::size_t i : {0U, 2U, 3U})
    EXPECT_EQ(page_diagrams(plans[i], plans, ModuleGraph({ModuleGraph::Edge("a", "c")})).size(), 1U) << i;
}

TEST(PageDiagrams, Labels) {
  const struct {
    std::string title;
    std::string label;
    const char* why;
  } rows[] = {
      {"src/a-b_c.cc (x)", "src/a-b_c.cc (x)", "what paths hold stands as it is"},
      {"say \"x\"", "say #34;x#34;", "a quote would end the label"},
      {"a #quot; b", "a #35;quot#59; b", "an entity code is text"},
      {"<b>&`x`", "#60;b#62;#38;#96;x#96;", "HTML and Markdown strings"},
      {"%%{init}%%", "#37;#37;#123;init#125;#37;#37;", "a directive"},
      {"a\n  n9 --> n0\r\tb", "a n9 --#62; n0 b", "lines"},
      {"a\x01\x7F", "a#60;01#62;#60;7F#62;", "control characters"},
      {"\xE2\x80\xAE-", "#60;U+202E#62;-", "what turns the reading direction"},
      {"\xC3\xA9\xFF", "\xC3\xA9#60;FF#62;", "bytes that are no UTF-8"},
      {"x" + std::string(100, 'y'), "x" + std::string(59, 'y') + "...", "too long"},
      {" \n", "a", "without a title the page id"},
  };
  for (const auto& row : rows) {
    std::vector<PagePlan> pages{page("overview", "overview"), page("a"), page("b")};
    pages[1].title = row.title;
    const Plans plans(pages);
    EXPECT_EQ(texts(page_diagrams(plans[0], plans, ModuleGraph({ModuleGraph::Edge("a", "b")}))),
              "  n0[\"" + row.label + "\"]   n1[\"b\"]   n0 --> n1 |")
        << row.why;
  }
}

TEST(PageDiagrams, OfALargeGraphTheMostConnected) {
  const struct {
    int pages;
    int reach;  // how many pages a page depends on
    const char* caption;
    int nodes;
    int edges;
  } rows[] = {
      {24, 1, "Dependencies between the top modules", 24, 23},
      {25, 1, "Dependencies between the top modules (and 1 more module, 1 more dependency)", 24, 23},
      {12, 11, "Dependencies between the top modules (and 6 more dependencies)", 12, 60},
      {40, 39, "Dependencies between the top modules (and 28 more modules, 720 more dependencies)", 12, 60},
  };
  for (const auto& row : rows) {
    std::vector<PagePlan> pages{page("overview", "overview")};
    for (int i = 0; i < row.pages; ++i) pages.push_back(page(std::to_string(100 + i)));
    std::vector<ModuleGraph::Edge> edges;
    for (int i = 1; i <= row.pages; ++i) {
      for (int to = i + 1; to <= std::min(row.pages, i + row.reach); ++to)
        edges.emplace_back(pages[static_cast<std::size_t>(i)].page_id,
                           pages[static_cast<std::size_t>(to)].page_id);
    }
    const Plans plans(pages);
    const auto diagrams = page_diagrams(plans[0], plans, ModuleGraph(edges));
    ASSERT_EQ(diagrams.size(), 1U);
    const auto& [caption, text] = diagrams.front();
    EXPECT_EQ(caption, row.caption);
    EXPECT_EQ(std::count(text.begin(), text.end(), '['), row.nodes) << row.caption;
    EXPECT_EQ(std::count(text.begin(), text.end(), '>'), row.edges) << row.caption;
  }
}

TEST(SerializeDiagrams, TellsCaptionsFromTexts) {
  EXPECT_EQ(_serialize_diagrams({}), "[]");
  EXPECT_NE(_serialize_diagrams({{"a", "b\", \"c"}}), _serialize_diagrams({{"a\", \"b", "c"}}));
}

}  // namespace
}  // namespace ossilar::workers::wiki
