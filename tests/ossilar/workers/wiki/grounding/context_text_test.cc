// What an author's context names within its budget, and what of the sources it shows first.
#include "ossilar/workers/wiki/grounding/context_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/grounding/prototypes.h"
#include "ossilar/workers/wiki/grounding/symbol_lookup.h"
#include "support/source_tree.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::tree_of;
using source::FileKind;
using source::Symbol;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using Strings = std::vector<std::string>;

TEST(Signatures, EndWhereTheBodyBegins) {
  for (const auto& [text, wanted] : std::vector<std::pair<std::string, std::string>>{
           {"int add(int a,\n        int b) {\n  return a;\n", "int add(int a, int b)"},
           {"\tdef run(self, *, x=1):\n", "def run(self, *, x=1):"},
           {"struct A;", "struct A"},
           {"void f(std::array<int, 3> a = {1, 2});", "void f(std::array<int, 3> a = {1, 2})"},
           {"pub fn go<T>(t: T) -> Vec<T> {", "pub fn go<T>(t: T) -> Vec<T>"},
           {"f(\n" + std::string(400, 'x'), "f(" + std::string(kLongestSignature - 2, 'x')},
           {"", ""}}) {
    EXPECT_EQ(signature_of(utils::split_lines(text), 1), wanted);
  }
  EXPECT_EQ(signature_of(utils::split_lines("one line"), 7), "") << "the text is newer than the index";
}

TEST(Extents, GoFromTheCommentAboveToTheNextSymbolOutside) {
  const std::string text = "// About A.\nclass A {\n  int b();\n};\n\n// About c.\nint c() {\n}\n\n";
  const auto lines = utils::split_lines(text);
  const std::vector<Symbol> symbols{
      {"A", "class", "", 2}, {"b", "function", "A", 3}, {"c", "function", "", 7}};
  const auto extent = [&](std::size_t number) {
    const Extent found = extent_of(symbols, number, lines);
    return std::vector<std::int64_t>{found.first, found.last};
  };
  EXPECT_THAT(extent(0), ElementsAre(1, 4));
  EXPECT_THAT(extent(1), ElementsAre(3, 4));
  EXPECT_THAT(extent(2), ElementsAre(6, 8));
}

// A declaration is told from a call and from what has a body, and what is private is not offered.
TEST(Prototypes, AreDeclarationsWithoutABody) {
  const std::string text =
      "class DB {\n public:\n  // Opens.\n  static Status Open(const Options& o,\n                     DB** "
      "db);\n"
      "  virtual int Get() = 0;\n  int size() const { return count(a); }\n  void grow() {\n    make(1);\n"
      "    return call(2);\n    x = f(3);\n  }\n private:\n  void hide();\n};\n"
      "extern char* ldb_name(int);\n#define X(a) foo(a);\ntypedef int (*Fn)(int);\n";
  Strings offered, rest;
  for (const NamedSymbol& named : prototypes_in(utils::split_lines(text)))
    (named.is_public ? offered : rest).push_back(named.symbol.name + (named.is_documented ? "!" : ""));
  EXPECT_THAT(offered, ElementsAre("Open!", "Get", "ldb_name"));
  EXPECT_THAT(rest, ElementsAre("hide"));
}

struct Offered {
  const char* path;
  const char* text;  // a symbol in each line, by the word before its first bracket
  Strings offered;   // those that others can use
};

TEST(PublicSymbols, AreWhatTheLanguageSays) {
  for (const auto& [path, text, offered] : std::vector<Offered>{
           {"a.go", "func Run()\nfunc run()\n", {"Run"}},
           {"a.py", "def run():\ndef _run():\n", {"run"}},
           {"a.rs", "pub fn run()\nfn help()\n", {"run"}},
           {"a.java", "public void run()\nprivate void help()\nprotected void aid()\n", {"run"}},
           {"a.js", "function run()\nfunction help()\nexports.run = run;\n", {"run"}},
           {"b.js", "function run()\nfunction help()\nmodule.exports = {\n  run,\n};\n", {"run"}},
           {"a.ts", "export function run()\nfunction help()\n", {"run"}},
           {"a.c", "int run()\nstatic int help()\nint unnamed()\n", {"run"}},
           {"a.h", "int run() {}\nstatic inline int also() {}\n", {"run", "also"}}}) {
    std::vector<Symbol> symbols;
    std::int64_t line = 0;
    for (const std::string_view each : utils::split_lines(text)) {
      ++line;
      const std::string_view before = each.substr(0, each.find('('));
      if (before.size() == each.size()) continue;
      symbols.push_back({std::string(before.substr(before.rfind(' ') + 1)), "function", "", line});
    }
    const source::SourceIndex index = tree_of({{path, 9, FileKind::text, symbols}});
    Exports exports;
    exports.add_header("int run();");
    Strings found;
    for (const NamedSymbol& named : named_symbols(*index.files().front(), text, exports))
      if (named.is_public) found.push_back(named.symbol.name);
    EXPECT_EQ(found, offered) << path;
  }
}

// A page of files with so many functions each, every second one a helper.
class ContextTexts : public ::testing::Test {
 protected:
  void make(int files, int functions) {
    std::vector<ossilar::testing::TreeFile> tree;
    plan_.page_id = "m";
    plan_.title = "M";
    plan_.type = "module";
    for (int f = 0; f < files; ++f) {
      const std::string path = "m/f" + std::to_string(f) + ".py";
      std::vector<Symbol> symbols;
      std::string text;
      for (int i = 0; i < functions; ++i) {
        const std::string name =
            (i % 2 == 0 ? "api_" : "_help_") + std::to_string(f) + "_" + std::to_string(i);
        symbols.push_back({name, "function", "", 2 * i + 1});
        text += "def " + name + "(first_argument, second_argument):\n    body_of_" + name + "()\n";
      }
      texts_[path] = text;
      tree.push_back({path, 2 * functions, FileKind::text, symbols});
      plan_.source_files.push_back(path);
    }
    index_.reset(new source::SourceIndex(tree_of(tree)));  // made in place: it cannot be moved
  }
  std::string text(const ContextWish& wish) {
    const ReadSource read = [this](const std::string& path) { return std::optional(texts_.at(path)); };
    return context_text(plan_, {plan_}, *index_, "", plan_.source_files, read, wish);
  }

  PagePlan plan_;
  std::map<std::string, std::string> texts_;
  std::unique_ptr<source::SourceIndex> index_;
};

TEST_F(ContextTexts, NameEveryPublicSymbolByItsSignatureBeforeHelpers) {
  make(3, 10);
  const std::string text = this->text({.room = 40'000});
  const std::size_t helpers = text.find("helpers: ");
  for (int f = 0; f < 3; ++f) {
    const std::string name = "api_" + std::to_string(f) + "_8";
    EXPECT_THAT(text, HasSubstr("- L17 `def " + name + "(first_argument, second_argument):`"));
  }
  EXPECT_LT(text.find("def api_0_8"), helpers);
  EXPECT_LT(helpers, text.find("## Excerpts"));
}

TEST_F(ContextTexts, NameEveryPublicSymbolAlsoWhereSignaturesHaveNoRoom) {
  make(20, 60);
  const std::string text = this->text({.room = 24'000});
  for (int f = 0; f < 20; ++f) {
    for (int i = 0; i < 60; i += 2) {
      const std::string name = "api_" + std::to_string(f) + "_" + std::to_string(i);
      EXPECT_THAT(text, HasSubstr(name)) << "no room is left for a name only when all is names";
    }
  }
  EXPECT_LT(text.size(), 26'000U);
}

TEST_F(ContextTexts, ShowTheFocusFirstAndTheNeighboursAbstracts) {
  make(20, 60);
  plan_.parent = "m";
  const source::SourceFile* file = index_->find("m/f7.py");
  const std::string text = this->text({.room = 30'000,
                                       .focus = {{file, Extent{.first = 101, .last = 104}}},
                                       .abstracts = {{"m", "It keeps things."}}});
  EXPECT_THAT(text, HasSubstr("- above: M (m): It keeps things.\n"));
  const std::size_t focus = text.find("## What you asked for");
  ASSERT_NE(focus, std::string::npos);
  EXPECT_LT(text.find("102      body_of_api_7_50()", focus), text.find("## Files, and what"));
  EXPECT_THAT(this->text({.room = 30'000}), Not(HasSubstr("body_of_api_7_50")));
}

TEST(SymbolLookup, FindsNamesTheBestFirst) {
  const source::SourceIndex index =
      tree_of({{"src/a.cc",
                90,
                FileKind::text,
                {{"open_wiki", "function", "", 3}, {"Open", "function", "ns::Wiki", 5}}},
               {"src/b.cc", 90, FileKind::text, {{"open", "function", "", 7}, {"reopen", "function", "", 9}}},
               {"src/b_test.cc", 90, FileKind::text, {{"open", "function", "", 2}}}});
  const auto names = [&](const SymbolQuery& query) {
    Strings found;
    for (const auto& [file, symbol] : find_symbols(query, index))
      found.push_back(file->path + ":" + std::to_string(symbol.line));
    return found;
  };
  EXPECT_THAT(names({.name = "open"}),
              ElementsAre("src/b.cc:7", "src/b_test.cc:2", "src/a.cc:5", "src/a.cc:3", "src/b.cc:9"));
  EXPECT_THAT(names({.name = "open", .is_whole = true, .path = "src/b.cc"}), ElementsAre("src/b.cc:7"));
  EXPECT_THAT(names({.name = "Wiki::open"}), ElementsAre("src/a.cc:5"));
  EXPECT_THAT(names({.name = "ki::open"}), IsEmpty()) << "a part of a scope is another scope";
  EXPECT_THAT(names({.name = "open", .kind = "class"}), IsEmpty());
  EXPECT_THAT(near_symbols("open_wikki", index, 3), ElementsAre("open_wiki"));
  EXPECT_THAT(near_symbols("entirely_other", index, 3), IsEmpty());
}

}  // namespace
}  // namespace ossilar::workers::wiki
