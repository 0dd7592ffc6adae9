#include "ossilar/workers/wiki/plan/grouping/item_groups.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "ossilar/workers/wiki/plan/grouping/name_words.h"

namespace ossilar::workers::wiki {
namespace {

using ::testing::ElementsAre;

struct Given {
  std::string name;
  std::int64_t weight = 500;
  std::vector<std::string> includes = {};
  std::vector<source::Symbol> symbols = {};
};

// The groups of these items, home first: "label = slug: names".
std::vector<std::string> groups_of(std::vector<Given> given, const std::string& entry,
                                   const CommunitySizes& sizes) {
  std::sort(given.begin(), given.end(), [](const Given& a, const Given& b) { return a.name < b.name; });
  const auto place_of = [&](const std::string& name) {
    const auto found =
        std::find_if(given.begin(), given.end(), [&](const Given& g) { return g.name == name; });
    return static_cast<std::size_t>(found - given.begin());
  };
  std::vector<std::unique_ptr<source::SourceFile>> files;
  std::vector<Item> items;
  ItemLinks links;
  for (const Given& g : given) {
    files.push_back(std::make_unique<source::SourceFile>());
    files.back()->symbols = source::SymbolList(g.symbols);
    for (const std::string& other : g.includes) links.emplace_back(items.size(), place_of(other));
    items.push_back({g.name, g.weight, {files.back().get()}});
  }
  const GroupedItems grouped = group_items(std::move(items), links, place_of(entry), sizes);
  const auto shown = [](const std::vector<Item>& group) {
    std::string names;
    for (const Item& item : group) names += " " + item.name;
    return names;
  };
  std::vector<std::string> out{"home:" + shown(grouped.home)};
  for (const ItemGroup& group : grouped.groups)
    out.push_back(group.name.label + " = " + group.name.slug + ":" + shown(group.items));
  return out;
}

constexpr CommunitySizes kSizes{.least = 600, .most = 2000};

std::vector<source::Symbol> functions(const std::vector<std::string>& names) {
  std::vector<source::Symbol> symbols;
  symbols.reserve(names.size());
  for (const std::string& name : names) symbols.push_back({name, "function", "", 1});
  return symbols;
}

TEST(GroupItems, ByWhatBelongsTogether) {
  struct Row {
    const char* why;
    std::vector<Given> items;
    std::vector<std::string> groups;
  };
  const std::vector<Row> rows = {
      {"includes: who includes whom, and not the header that all include",
       {{"all", 500},
        {"b", 800, {"all", "q"}},
        {"q", 500, {"all"}},
        {"c", 900, {"all", "p"}},
        {"p", 600, {"all"}},
        {"z", 900, {"all"}}},
       {"home: all z", "b, q = b: b q", "c, p = c: c p"}},
      {"names: whole words, or a name that others go on from",
       {{"main", 900}, {"log_reader"}, {"log_writer"}, {"log"}, {"vdbe"}, {"vdbeaux"}, {"vdbeMem"}},
       {"home: main", "log* = log: log log_reader log_writer", "vdbe* = vdbe: vdbe vdbeMem vdbeaux"}},
      {"symbols, where neither ties them",
       {{"main", 900},
        {"alpha", 700, {}, functions({"openSocket", "closeSocket"})},
        {"beta", 700, {}, functions({"parseHeader"})},
        {"gamma", 700, {}, functions({"socket_read"})},
        {"delta", 700, {}, functions({"header_of"})}},
       {"home: main", "alpha, gamma = alpha: alpha gamma", "beta, delta = beta: beta delta"}},
      {"what nearly all names begin with is left out",
       {{"x_main", 900}, {"x_log_a"}, {"x_log_b"}, {"x_net_a"}, {"x_net_b"}},
       {"home: x_main", "log* = log: x_log_a x_log_b", "net* = net: x_net_a x_net_b"}},
      {"the second group of a name is named after its items",
       {{"main", 900},
        {"db_a", 1500},
        {"db_b", 400},
        {"db_c", 1200},
        {"db_d", 300},
        {"u"},
        {"v"},
        {"w"},
        {"y"}},
       {"home: main", "db* = db: db_a db_b", "db_c, db_d = db_c: db_c db_d", "u, v, w = u: u v w y"}},
      {"one item that is too large alone",
       {{"main", 900}, {"huge", 9000, {"main"}}, {"low", 700, {"main"}}},
       {"home: low main", "huge = huge: huge"}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(groups_of(row.items, row.items[0].name, kSizes), row.groups) << row.why;
  }
}

TEST(GroupItems, DividesByTheAlphabetWhatNothingTies) {
  std::vector<Given> items{{"main", 900}};
  for (char c = 'a'; c <= 'h'; ++c) items.push_back({std::string(1, c) + "x" + c, 590});
  const std::vector<std::string> groups = groups_of(items, "main", kSizes);
  EXPECT_THAT(groups, ElementsAre("home: main", "a\u2013b = a-b: axa bxb", "c\u2013d = c-d: cxc dxd",
                                  "e\u2013g = e-g: exe fxf gxg", "hxh = hxh: hxh"));
  items.push_back({"bnew", 90});
  EXPECT_EQ(groups_of(items, "main", kSizes).size(), groups.size())
      << "a new file leaves the other pages as they were";
}

TEST(NameWords, EndBeforeSeparatorsCapitalsAndTheNumberAtTheEnd) {
  EXPECT_THAT(words_of("ngx_http_Proxy2"), ElementsAre("ngx", "http", "proxy", "2"));
  EXPECT_THAT(words_of("Base64Codec"), ElementsAre("base64", "codec"));
  EXPECT_THAT(words_of("HTTPServer"), ElementsAre("httpserver"));
  EXPECT_THAT(words_of("_private--x"), ElementsAre("private", "x"));
  EXPECT_THAT(words_of("12"), ElementsAre("12"));
  EXPECT_THAT(words_of(""), ElementsAre());
  EXPECT_THAT(word_ends("a_b"), ElementsAre(1U, 3U));
}

}  // namespace
}  // namespace ossilar::workers::wiki
