#include "ossilar/workers/wiki/plan/planner.h"
#include "ossilar/workers/wiki/plan/plan_entries.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <tuple>

#include "ossilar/workers/wiki/plan/glob.h"
#include "support/plans.h"
#include "support/rows.h"
#include "support/source_tree.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::expect_sound;
using ossilar::testing::files_in;
using ossilar::testing::page;
using ossilar::testing::tree_of;
using ossilar::testing::operator+;
using ossilar::testing::TreeFile;
using source::FileKind;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

// The ids of the module pages, each with its title when the two differ.
std::vector<std::string> modules(const std::vector<PagePlan>& pages) {
  std::vector<std::string> out;
  for (std::size_t i = 2; i < pages.size(); ++i) {
    out.push_back(pages[i].page_id + (pages[i].title == pages[i].page_id ? "" : " = " + pages[i].title));
  }
  return out;
}

WikiConfig entries(const std::string& text) { return parse_config(text, "ossilar.toml"); }

std::vector<PagePlan> plan_of(const std::vector<TreeFile>& files) {
  return derive_plan(tree_of(files), "Proj");
}

TEST(DerivePlan, DividesSourcesIntoPagesThatAnAuthorCanHandle) {
  struct Row {
    const char* why;
    std::vector<TreeFile> files;
    std::vector<std::string> modules;
  };
  const std::vector<Row> rows = {
      {"an empty repository", {}, {}},
      {"manifests and READMEs are the overview's", {{"README.md"}, {"CMakeLists.txt"}, {"setup.py"}}, {}},
      {"code at the root", {{"main.go"}, {"a.go"}, {"go.mod"}}, {"root = Proj (root)"}},
      {"within reach: one page with all below", {{"src/a/x.py"}, {"src/b/y.py"}, {"src/z.py"}}, {"src"}},
      {"wrappers are passed through",
       files_in("src/main/java/com/acme/", "A", 3, 300, ".java"),
       {"src/main/java/com/acme"}},
      {"a package is named by its manifest's folder",
       files_in("packages/p/src/a/", "x", 20, 300, ".ts") +
           files_in("packages/p/src/b/", "x", 20, 300, ".ts") +
           std::vector<TreeFile>{{"packages/p/package.json"}, {"packages/p/README.md"}},
       {"packages/p", "packages/p/src/a", "packages/p/src/b"}},
      {"a large folder: a page of its own with small children, and significant children",
       files_in("core/", "f", 10, 200) + files_in("core/big/", "g", 20, 300) +
           files_in("core/small/", "h", 2, 50),
       {"core", "core/big"}},
      {"what is beside the code comes last, each in one page",
       files_in("src/", "f", 10, 200) + files_in("tests/a/", "t", 90, 500) +
           files_in("tests/b/", "t", 90, 500) + files_in("vendor/x/", "v", 90, 900) +
           files_in("docs/", "d", 5, 100, ".md"),
       {"src", "docs", "tests", "vendor"}},
      {"tests below a module: with it when few, under it when many",
       files_in("m/", "f", 9, 200) + files_in("m/tests/", "t", 1, 90) + files_in("n/", "f", 9, 200) +
           files_in("n/tests/", "t", 20, 200),
       {"m", "n", "n/tests"}},
      {"within reach, but three parts with subjects of their own",
       files_in("lib/a/", "f", 4, 270) + files_in("lib/b/", "f", 4, 270) + files_in("lib/c/", "f", 4, 270) +
           std::vector<TreeFile>{{"lib/x.c", 30}},
       {"lib/a", "lib/b", "lib/c"}},
      {"within reach, with two: a module and its helpers",
       files_in("lib/a/", "f", 4, 270) + files_in("lib/b/", "f", 4, 270),
       {"lib"}},
      {"a few lines at the root are no page",
       files_in("src/", "f", 9, 300) + std::vector<TreeFile>{{"x.c", 40}},
       {"src"}},
      {"no code but examples: they are the code", files_in("examples/one/", "a", 3, 200), {"examples/one"}},
      {"no code at all: the text is what there is", files_in("guide/", "a", 3, 200, ".md"), {"guide"}},
      {"a file named like the folder beside it belongs to it",
       files_in("src/", "f", 20, 300) + files_in("src/parser/", "p", 9, 200) +
           std::vector<TreeFile>{{"src/parser.rs", 900}},
       {"src", "src/parser"}},
      {"a package test that offers names is no test",
       files_in("p/test/", "c", 4, 400, ".py") + std::vector<TreeFile>{{"p/test/__init__.py", 20}},
       {"p/test"}},
      {"names that no id or title may have",
       {{"a [b]/\u00e9\x1b.c", 300}, {"Overview/x.c", 300}},
       {"overview-2 = Overview (2)", "a--b- = a (b)"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    const std::vector<PagePlan> pages = plan_of(row.files);
    EXPECT_EQ(pages[0].page_id, "overview");
    EXPECT_EQ(pages[1].page_id, "architecture");
    EXPECT_EQ(modules(pages), row.modules);
    expect_sound(pages);
  }
  EXPECT_THAT(page(plan_of(rows[14].files), "src/parser").source_files, Contains("src/parser.rs"));
  EXPECT_EQ(page(plan_of(rows[8].files), "n/tests").parent, "n");
  EXPECT_THAT(page(plan_of(rows[8].files), "m").source_files, Contains("m/tests/t0.c"));
}

TEST(DerivePlan, DividesAFlatFolderByWhatBelongsTogether) {
  std::vector<TreeFile> files =
      files_in("src/", "parser_", 6, 300) +
      std::vector<TreeFile>{{"src/main.c", 1000}, {"src/huge.c", 20000}, {"src/huge.h", 200}};
  // Who includes whom; the header that all include says nothing.
  for (const char* name : {"net", "dns", "tls"})
    files.push_back(
        {"src/" + std::string(name) + ".c", 900, FileKind::text, {}, {"\"sock.h\"", "\"all.h\""}});
  for (const char* name : {"row", "page", "tree"})
    files.push_back(
        {"src/" + std::string(name) + ".c", 900, FileKind::text, {}, {"\"disk.h\"", "\"all.h\""}});
  files = files + std::vector<TreeFile>{{"src/sock.h", 90}, {"src/disk.h", 90}, {"src/all.h", 900}};
  // Tests beside the code, those of one file and those of several.
  files = files + files_in("src/", "test", 6, 400) + std::vector<TreeFile>{{"src/page_test.c", 200}};
  const std::vector<PagePlan> pages = plan_of(files);
  EXPECT_THAT(modules(pages),
              ElementsAre("src", "src/page = src (page, row, tree)", "src/dns = src (dns, net, tls)",
                          "src/huge = src (huge)", "src/parser = src (parser*)", "src/tests = src (tests)"));
  EXPECT_THAT(page(pages, "src").source_files, ElementsAre("src/main.c")) << "where the program begins";
  EXPECT_THAT(page(pages, "src/huge").source_files, ElementsAre("src/huge.c", "src/huge.h"));
  EXPECT_THAT(page(pages, "src/page").source_files, Contains("src/disk.h"));
  EXPECT_THAT(page(pages, "src/page").source_files, Contains("src/page_test.c"));
  EXPECT_THAT(page(pages, "src/tests").source_files.size(), 6U);
  EXPECT_EQ(page(pages, "src/tests").importance, "low");
  EXPECT_THAT(page(pages, "src/parser").description,
              HasSubstr("(parser_0.c, parser_1.c, parser_2.c and others)"));
  expect_sound(pages);

  files.push_back({"src/dnssec.c", 90, FileKind::text, {}, {"\"sock.h\"", "\"all.h\""}});
  EXPECT_EQ(modules(plan_of(files)), modules(pages)) << "a new file leaves the other pages what they were";
}

TEST(DerivePlan, TellsBundledCodeOnOnePage) {
  const std::vector<TreeFile> own = files_in("src/", "f", 20, 300);
  const struct {
    const char* why;
    std::vector<TreeFile> files;
    std::vector<std::string> modules;
    std::vector<std::string> sources;  // of the last page
  } rows[] = {
      {"a folder of projects: README, licence, manifest and main file of each",
       files_in("deps/lua/", "l", 40, 600) + files_in("deps/zip/", "z", 9, 600) +
           std::vector<TreeFile>{{"deps/lua/README", 40}, {"deps/lua/COPYRIGHT", 30}, {"deps/zip/zip.h", 90}},
       {"src", "deps"},
       {"deps/lua/README", "deps/lua/COPYRIGHT", "deps/lua/l0.c", "deps/zip/zip.h"}},
      {"several folders, and a library of one file",
       files_in("lib/third_party/a/", "a", 3, 600) + files_in("tool/vendor/", "b", 3, 600) +
           std::vector<TreeFile>{{"lib/x.c", 1200}, {"tool/y.c", 1200}, {"src/stb_image.h", 900}},
       {"src", "lib", "tool", "bundled = Bundled code"},
       {"lib/third_party/a/a0.c", "tool/vendor/b0.c", "src/stb_image.h"}},
      {"a licence of its own, and no use of the code around it",
       files_in("hash/", "h", 2, 600) + files_in("more/", "m", 20, 300) +
           std::vector<TreeFile>{{"LICENSE", 20, FileKind::text, {}, {}, "ours"},
                                 {"hash/LICENSE", 20, FileKind::text, {}, {}, "theirs"}},
       {"src", "more", "hash"},
       {"hash/LICENSE", "hash/h0.c"}},
      {"a licence of its own on code that needs the rest",
       std::vector<TreeFile>{{"LICENSE", 20, FileKind::text, {}, {}, "ours"},
                             {"hash/LICENSE", 20, FileKind::text, {}, {}, "theirs"},
                             {"hash/h.c", 900, FileKind::text, {}, {"\"src/f0.c\""}}},
       {"hash", "src"},
       {}},
      {"packages with licences of their own",
       files_in("p/a/", "a", 9, 200) + files_in("p/b/", "b", 9, 200) + files_in("p/c/", "c", 20, 200) +
           std::vector<TreeFile>{{"LICENSE", 20, FileKind::text, {}, {}, "ours"},
                                 {"p/a/LICENSE", 20, FileKind::text, {}, {}, "2001"},
                                 {"p/b/LICENSE", 20, FileKind::text, {}, {}, "2002"}},
       {"p/a", "p/b", "p/c", "src"},
       {}},
      {"where it is nearly all there is, it is the code",
       files_in("third_party/", "t", 9, 300) + files_in("jq/", "jquery", 20, 300, ".js"),
       {"jq", "src", "third_party"},
       {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.why);
    const std::vector<PagePlan> pages = plan_of(own + row.files);
    std::vector<std::string> found = modules(pages);
    EXPECT_THAT(found, UnorderedElementsAreArray(row.modules));
    if (row.sources.empty()) continue;
    EXPECT_EQ(found.back(), row.modules.back()) << "after the code";
    EXPECT_THAT(pages.back().source_files, UnorderedElementsAreArray(row.sources));
    EXPECT_EQ(pages.back().importance, "low");
  }
  EXPECT_EQ(plan_of(own + rows[0].files).back().description, "Code of other projects in deps: lua, zip.");
}

TEST(DerivePlan, AGrammarIsReadAndNotWhatIsMadeFromIt) {
  const std::vector<PagePlan> pages = plan_of({{"gram/parser.y", 900},
                                               {"gram/parser.c", 9000},
                                               {"gram/lex.yy.c", 9000},
                                               {"gram/tree.c", 400},
                                               {"src/x.l", 9},
                                               {"src/y.c", 700}});
  EXPECT_THAT(page(pages, "gram").source_files, ElementsAre("gram/parser.y", "gram/tree.c"));
  EXPECT_THAT(page(pages, "src").source_files, ElementsAre("src/y.c"));
}

TEST(DerivePlan, BeginsWhereAReaderDoes) {
  const std::vector<PagePlan> pages = plan_of(
      files_in("a/", "f", 9, 300) + files_in("zz/", "f", 9, 300) + files_in("cmake/", "f", 9, 300) +
      files_in("api/include/", "h", 9, 300, ".h") + files_in("tests/", "t", 9, 300) +
      files_in("docs/", "d", 9, 300, ".md") + std::vector<TreeFile>{{"zz/main.c", 300}, {"tiny.c", 9}});
  EXPECT_THAT(modules(pages), ElementsAre("api/include", "zz", "a", "cmake", "docs", "tests"));
}

// So that no folder is hidden behind the files of the one before it.
TEST(DerivePlan, TestsAreShownByTheFirstOfEachFolder) {
  const std::vector<PagePlan> pages =
      plan_of(files_in("src/", "f", 9, 300) + files_in("tests/a/", "t", 90, 300) +
              files_in("tests/b/", "t", 90, 300) +
              std::vector<TreeFile>{{"tests/c/__init__.py", 0}, {"tests/huge.c", 90000}});
  const std::vector<std::string>& shown = page(pages, "tests").source_files;
  EXPECT_THAT(shown, ::testing::IsSupersetOf({"tests/a/t0.c", "tests/b/t0.c", "tests/b/t1.c"}));
  EXPECT_THAT(shown, Not(Contains("tests/huge.c")));
  EXPECT_LE(shown.size(), 24U) << "no more than can be read";
  EXPECT_THAT(page(pages, "tests").description, HasSubstr("only the first of them"));
}

TEST(DerivePlan, ListsWhatAPageMayRestOn) {
  const std::vector<PagePlan> pages = plan_of({{"m/b.go", 100},
                                               {"m/a.go", 100},
                                               {"m/a_test.go", 900},
                                               {"m/README.md", 10},
                                               {"m/CHANGELOG.md", 900},
                                               {"m/data.json", 900},
                                               {"m/x.pb.go", 900},
                                               {"m/lib.min.js", 900},
                                               {"m/link.go", 9, FileKind::symlink},
                                               {"m/blob.go", 9, FileKind::binary},
                                               {"m/sub.go", 9, FileKind::submodule},
                                               {"m/large.go", 9, FileKind::large},
                                               {"package-lock.json", 9000}});
  EXPECT_THAT(page(pages, "m").source_files, ElementsAre("m/a.go", "m/b.go", "m/a_test.go", "m/README.md"));
  EXPECT_EQ(page(pages, "m").description, "Module m: 4 files with about 1,100 lines of Go.");
}

TEST(DerivePlan, OverviewAndArchitectureRestOnWhatShowsTheWhole) {
  const std::vector<PagePlan> pages =
      plan_of(files_in("lib/", "f", 30, 190) + files_in("app/", "g", 9, 100) +
              std::vector<TreeFile>{{"README.md"},
                                    {"README.fr.md"},
                                    {"Cargo.toml"},
                                    {"Makefile"},
                                    {"LICENSE"},
                                    {"lib/mod.rs", 20},
                                    {"app/x.rs", 20, FileKind::text, {{"main", "function", "", 3}}},
                                    {"docs/main.c", 400},
                                    {"notes.md"}});
  EXPECT_THAT(pages[0].source_files, ElementsAre("README.md", "README.fr.md", "Cargo.toml", "Makefile"));
  EXPECT_THAT(pages[1].source_files, ElementsAre("Cargo.toml", "Makefile", "app/x.rs", "lib/mod.rs"));
  EXPECT_EQ(page(pages, "lib").importance, "high");
  EXPECT_EQ(page(pages, "docs").importance, "low");
  EXPECT_THAT(page(pages, "lib").related_pages, UnorderedElementsAre("architecture", "app", "docs"));
}

// A plan without its titles and descriptions.
using Structure = std::tuple<std::string, std::string, int, std::string, std::string,
                             std::vector<std::string>, std::vector<std::string>, std::vector<std::string>>;

std::vector<Structure> structure_of(const std::vector<PagePlan>& pages) {
  std::vector<Structure> out;
  for (const PagePlan& p : pages) {
    out.emplace_back(p.page_id, p.importance, p.level, p.type, p.parent, p.children, p.source_files,
                     p.related_pages);
  }
  return out;
}

// A checkout that is copied to a folder of another name is the same repository.
TEST(DerivePlan, TheNameOfTheRepositoryIsForTitlesAndDescriptionsAlone) {
  const struct {
    const char* why;
    std::vector<TreeFile> files;
  } rows[] = {
      {"what a large root folder keeps on its own page",
       files_in("", "a", 20, 300) + files_in("", "n", 20, 300) + std::vector<TreeFile>{{"core.c", 250}}},
      {"what a large folder keeps on its own page, and so how its rest is cut",
       files_in("src/", "a", 21, 300) + files_in("src/", "n", 21, 300) +
           std::vector<TreeFile>{{"src/core.c", 290}, {"src/Core.h", 280}}},
      {"what the architecture rests on", {{"src/core.c", 200}, {"src/other.c", 900}, {"core.py", 50}}},
      {"folders and titles of that name", files_in("core/", "f", 9, 300) +
                                              files_in("core (root)/", "f", 9, 300) +
                                              std::vector<TreeFile>{{"core.c", 300}, {"other.c", 300}}},
  };
  for (const auto& row : rows) {
    const source::SourceIndex index = tree_of(row.files);
    const std::vector<PagePlan> pages = derive_plan(index, "core");
    expect_sound(pages);
    EXPECT_EQ(structure_of(pages), structure_of(derive_plan(index, "elsewhere"))) << row.why;
  }
}

TEST(DerivePlan, StaysBoundedForAHugeTree) {
  std::vector<TreeFile> files;
  files.reserve(100000);
  for (int i = 0; i < 100000; ++i) {
    std::string path = "d" + std::to_string(i % 70);
    path.append("/e").append(std::to_string(i % 2100)).append("/f").append(std::to_string(i)).append(".c");
    files.push_back({std::move(path), 400});
  }
  const std::vector<PagePlan> pages = plan_of(files);
  EXPECT_LE(pages.size(), 1002U);
  EXPECT_GE(pages.size(), 300U);
  expect_sound(pages);
  const std::string deep = [] {
    std::string path;
    for (int i = 0; i < 2000; ++i) path += "d/";
    return path;
  }();
  expect_sound(plan_of({{deep + "a.c"}, {deep + "b/c.c"}}));
}

TEST(AmendPlan, AmendsInPlaceAndAddsAtTheEnd) {
  const source::SourceIndex index =
      tree_of(files_in("a/", "x", 3, 100) + files_in("b/c/", "y", 2, 100, ".py") +
              std::vector<TreeFile>{{"b/c/link.py", 1, FileKind::symlink}});
  const WikiConfig config = entries(
      "[[page]]\nid = 'a'\ntitle = 'The A'\nimportance = 'low'\nsteering = 'be brief'\n"
      "[[page]]\nid = 'guides/error-handling'\nparent = 'a'\nsources = ['b', 'a/x0.c', '**/x0.c']\n"
      "[[page]]\nid = 'sub'\ntype = 'module'\nparent = 'later'\nrelated = ['a']\n"
      "[[page]]\nid = 'later'\ntype = 'module'\nparent = 'a'\n");
  const std::vector<PagePlan> pages = amend_plan(derive_plan(index, "Proj"), config, index);
  EXPECT_EQ(page(pages, "a").title, "The A");
  EXPECT_EQ(page(pages, "a").importance, "low");
  EXPECT_EQ(page(pages, "a").steering, "be brief");
  EXPECT_EQ(page(pages, "a").source_files.size(), 3U) << "what the entry leaves out stays as derived";
  EXPECT_THAT(page(pages, "a").children, ElementsAre("later")) << "a topic below a module is no part of it";
  const PagePlan& topic = page(pages, "guides/error-handling");
  EXPECT_EQ(topic.title + "|" + topic.type + "|" + topic.importance, "Error handling|topic|medium");
  EXPECT_EQ(topic.level, 2);
  EXPECT_THAT(topic.source_files, ElementsAre("a/x0.c", "b/c/y0.py", "b/c/y1.py"));
  EXPECT_EQ(page(pages, "sub").level, 3) << "below a page that a later entry adds";
  EXPECT_EQ(pages.back().page_id, "later");
}

TEST(AmendPlan, RefusesNamingEntryAndKey) {
  const source::SourceIndex index = tree_of(files_in("a/", "x", 3, 100) + files_in("b/", "y", 2, 100));
  for (const Map& row : ossilar::testing::rows_of("wiki/entry_refusals.txt")) {
    try {
      amend_plan(derive_plan(index, "Proj"), entries(row[0]), index);
      ADD_FAILURE() << row;
    } catch (const utils::ConfigError& error) {
      EXPECT_THAT(error.what(), HasSubstr(row[1].get<std::string>()));
    }
  }
  const WikiConfig swapped = entries("[[page]]\nid='a'\ntitle='b'\n[[page]]\nid='b'\ntitle='a'");
  EXPECT_EQ(page(amend_plan(derive_plan(index, "Proj"), swapped, index), "a").title, "b")
      << "titles may change places";
}

TEST(Glob, Matches) {
  for (const Map& row : ossilar::testing::rows_of("wiki/globs.txt")) {
    EXPECT_EQ(glob_matches(row[0].get<std::string>(), row[1].get<std::string>()), row[2].get<bool>()) << row;
  }
}

// A backtracking matcher would take exponential time for these patterns.
TEST(Glob, HostilePatternsEnd) {
  std::string pattern, deep;
  for (int i = 0; i < 150; ++i) pattern += "*a", deep += "**/a*/";
  EXPECT_FALSE(glob_matches(pattern + "b", std::string(4000, 'a')));
  std::string path;
  for (int i = 0; i < 2000; ++i) path += "a/";
  EXPECT_FALSE(glob_matches(deep + "b", path + "c"));
}

TEST(Glob, ReadsOnlyWhatCanMatch) {
  const source::SourceIndex index =
      tree_of({{"a/x.c"}, {"ab/x.c"}, {"b/x.c"}, {"b/y.bin", 0, FileKind::binary}});
  EXPECT_THAT(Glob("a").matching_files(index), ElementsAre("a/x.c"));
  EXPECT_THAT(Glob("a*/x.c").matching_files(index), ElementsAre("a/x.c", "ab/x.c"));
  EXPECT_THAT(Glob("b").matching_files(index), ElementsAre("b/x.c")) << "text alone";
  EXPECT_THAT(Glob("\\b").matching_files(index), Not(IsEmpty()));
}

}  // namespace
}  // namespace ossilar::workers::wiki
