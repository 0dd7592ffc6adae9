#include "ossilar/workers/wiki/plan/module_graph.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "ossilar/utils/text.h"
#include "support/source_tree.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::tree_of;
using ossilar::testing::TreeFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

TEST(ResolveImport, FindsTheFileThatEachLanguageMeans) {
  source::SourceFile importer;
  std::vector<TreeFile> files;
  int rows = 0;
  std::ifstream table(OSSILAR_TEST_DATA "/wiki/imports.txt");
  for (std::string line; std::getline(table, line);) {
    if (line.substr(0, 1) == "=") {
      importer.language = line.substr(2);
      files.clear();
    } else if (line.substr(0, 1) == "+") {
      line[0] = ' ';
      for (const auto path : utils::split_words(line)) files.push_back({std::string(path)});
    } else if (!line.empty() && line[0] != '#') {
      std::vector<std::string> cells;
      std::istringstream row(line);
      for (std::string cell; std::getline(row, cell, '|');) cells.emplace_back(utils::strip(cell));
      ASSERT_EQ(cells.size(), 4U) << line;
      importer.path = cells[0];
      EXPECT_EQ(resolve_import(tree_of(files), importer, cells[1]), cells[2]) << line;
      ++rows;
    }
  }
  EXPECT_GT(rows, 60);
}

PagePlan plan_of(const std::string& id, std::vector<std::string> files, const std::string& type = "module") {
  PagePlan plan;
  plan.page_id = id;
  plan.type = type;
  plan.source_files = std::move(files);
  return plan;
}

TEST(ModuleGraph, EdgesBetweenUnitPages) {
  const auto file = [](const char* path, const std::vector<std::string>& imports) {
    return TreeFile{.path = path, .imports = imports};
  };
  const source::SourceIndex index =
      tree_of({file("a/a.py", {"b.b", "a.other", "json"}), file("a/other.py", {"c.c", "b.b"}),
               file("b/b.py", {"d.d"}), file("c/c.py", {}), file("d/d.py", {"a.a"})});
  const Plans plans{plan_of("overview", {"a/a.py", "d/d.py"}, "overview"),
                    plan_of("a", {"a/a.py", "a/other.py", "gone.py"}), plan_of("b", {"b/b.py", "a/a.py"}),
                    plan_of("c", {"c/c.py"})};
  const ModuleGraph graph = module_graph(plans, index);
  EXPECT_THAT(graph.edges(), ElementsAre(Pair("a", "b"), Pair("a", "c")))
      << "d is on no unit page; a file of two pages belongs to the first";
  EXPECT_THAT(graph.dependencies("a"), ElementsAre("b", "c"));
  EXPECT_THAT(graph.dependents("b"), ElementsAre("a"));
  EXPECT_THAT(graph.dependents("c"), ElementsAre("a"));
  for (const char* without : {"b", "bb", "z", ""}) EXPECT_THAT(graph.dependencies(without), IsEmpty());
}

}  // namespace
}  // namespace ossilar::workers::wiki
