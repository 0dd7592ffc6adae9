#include "ossilar/workers/wiki/host/plan_maker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/plans.h"
#include "support/source_tree.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::files_in;
using ossilar::testing::is_saved;
using ossilar::testing::save;
using ossilar::testing::state_of;
using ossilar::testing::TempDir;
using ossilar::testing::tree_of;
using ossilar::testing::TreeFile;
using ossilar::testing::WikiRepo;
using ossilar::testing::operator+;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

using Index = std::shared_ptr<const source::SourceIndex>;

Index index_of(std::vector<TreeFile> files) {
  for (TreeFile& file : files) {
    if (file.content.empty()) file.content = file.path.substr(file.path.rfind('/') + 1);
  }
  return Index(new source::SourceIndex(tree_of(files)));  // in place, as an index cannot be moved
}

// The row that a save of the planned page stores.
Map row_of(const PlannedWiki& planned, const std::string& id, const std::vector<std::string>& cited = {}) {
  const PagePlan& plan = *planned.plans.find(id);
  Map citations = Map::array();
  for (const std::string& path : cited) citations.push_back({{"path", path}, {"first", 1}, {"last", 2}});
  return {{"page_id", id},
          {"page_type", plan.type},
          {"source_files", utils::json_text(plan.stored_source_files())},
          {"source_hashes", utils::json_text(source_hashes(plan.source_files, *planned.index, "Be brief."))},
          {"citations", utils::json_text(citations)}};
}

std::vector<std::string> ids_of(const PlannedWiki& planned) {
  std::vector<std::string> ids;
  for (std::size_t i = 0; i < planned.plans.size(); ++i) ids.push_back(planned.plans[i].page_id);
  return ids;
}

WikiConfig config_of(const std::string& text) { return parse_config(text, "ossilar.toml"); }

class PlanMakerTest : public ::testing::Test {
 protected:
  const std::vector<TreeFile> tree_ = files_in("a/", "x", 9, 200) + files_in("b/", "y", 9, 200);
  const std::vector<TreeFile> moved_ = files_in("lib/a/", "x", 9, 200) + files_in("b/", "y", 9, 200);
  const Index index_ = index_of(tree_);
};

TEST_F(PlanMakerTest, MakesAnotherPlanOnlyWhenOneOfItsPartsChanged) {
  const WikiConfig config = config_of("[[page]]\nid = 'topic'\nsources = ['a']\n");
  PlanMaker maker(config, "Proj");
  store::StoredRows rows;
  auto last = maker.plan(index_, rows);
  const struct {
    const char* why;
    std::function<void(const PlannedWiki&)> change;
  } quiet[] = {
      {"nothing", [](const auto&) {}},
      {"the first save of a page", [&](const auto& planned) { rows.set("a", row_of(planned, "a")); }},
      {"another text with the same sources",
       [&](const auto& planned) {
         Map row = row_of(planned, "a");
         row["content_hash"] = "other";
         rows.set("a", row);
       }},
      {"other citations", [&](const auto& planned) { rows.set("a", row_of(planned, "a", {"a/x1.c"})); }},
      {"a page that the configuration defines",
       [&](const auto& planned) { rows.set("topic", row_of(planned, "topic")); }},
      {"a damaged row",
       [&](const auto&) {
         rows.set("b", Map{{"page_type", "module"}, {"source_files", "["}});
       }},
      {"a page that is forgotten", [&](const auto&) { rows.erase("b"); }},
  };
  for (const auto& row : quiet) {
    row.change(*last);
    EXPECT_EQ(maker.plan(index_, rows), last) << row.why;
  }
  std::vector<TreeFile> files = tree_;
  files.front().content = "edited";
  const Index edited = index_of(files);
  const auto after_edit = maker.plan(edited, rows);
  EXPECT_NE(after_edit, last);
  EXPECT_EQ(after_edit->index, edited);
  EXPECT_TRUE(after_edit->plans.same_records(last->plans)) << "the pages are what they were";
  const auto moved = maker.plan(index_of(moved_), rows);
  EXPECT_FALSE(moved->plans.same_records(last->plans));
  EXPECT_THAT(moved->plans.find("a")->source_files, ::testing::Contains("lib/a/x0.c"));
  rows.erase("a");
  EXPECT_EQ(maker.plan(moved->index, rows)->plans.find("a"), nullptr) << "without its row it is not kept";
}

TEST_F(PlanMakerTest, TheOrderOfRowsAndOfChangesDoesNotMatter) {
  const WikiConfig config;
  PlanMaker steps(config, "Proj");
  store::StoredRows rows, backward;
  const auto first = steps.plan(index_, rows);
  for (const char* id : {"a", "b", "overview"}) {
    rows.set(id, row_of(*first, id));
    steps.plan(index_, rows);
  }
  for (const char* id : {"overview", "b", "a"}) backward.set(id, row_of(*first, id));
  const Index now = index_of(files_in("c/", "x", 9, 200) + files_in("c/", "y", 9, 200));
  const auto after_steps = steps.plan(now, rows);
  const auto at_once = PlanMaker(config, "Another name").plan(now, backward);
  EXPECT_THAT(ids_of(*after_steps), ElementsAre("overview", "architecture", "a", "b"));
  EXPECT_EQ(ids_of(*at_once), ids_of(*after_steps));
  for (const char* id : {"a", "b", "architecture"})
    EXPECT_EQ(at_once->plans.find(id)->source_files, after_steps->plans.find(id)->source_files) << id;
}

TEST_F(PlanMakerTest, TheConfigurationComesFirst) {
  const struct {
    const char* why;
    const char* config;
    std::vector<std::string> ids;
  } rows[] = {
      {"an entry amends the page that keeps its id",
       "[[page]]\nid = 'a'\nsteering = 'Be brief.'\n",
       {"overview", "architecture", "a", "b"}},
      {"a page that it defines takes no other's place",
       "[[page]]\nid = 'a'\ntype = 'module'\nsources = ['lib/a/x0.c']\n",
       {"overview", "architecture", "b", "lib/a", "a"}},
      {"a page that it names stays where it is",
       "[[page]]\nid = 't'\nparent = 'lib/a'\n",
       {"overview", "architecture", "b", "lib/a", "a", "t"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.why);
    store::StoredRows stored;
    const WikiConfig none;
    stored.set("a", row_of(*PlanMaker(none, "Proj").plan(index_, stored), "a"));
    const WikiConfig config = config_of(row.config);
    const auto planned = PlanMaker(config, "Proj").plan(index_of(moved_), stored);
    EXPECT_THAT(ids_of(*planned), ::testing::UnorderedElementsAreArray(row.ids));
  }
}

TEST_F(PlanMakerTest, AFailureLeavesNothingHalfMade) {
  const WikiConfig config = config_of("[[page]]\nid = 't'\nparent = 'a'\n");
  PlanMaker maker(config, "Proj");
  const Index without = index_of(files_in("b/", "y", 9, 200));
  for (int i = 0; i < 2; ++i) EXPECT_THROW(maker.plan(without, {}), utils::ConfigError);
  EXPECT_EQ(maker.plan(index_, {})->plans.find("t")->parent, "a");
}

std::string text_about(const std::string& path) {
  return "About it [" + path + ":L1-L2].\n\n## Responsibility\n\nMore [" + path + ":L3-L5].\n";
}

// On files, through the store, and in a second process.
TEST(KeptPages, AMovedFolderKeepsItsPage) {
  const TempDir dir;
  for (const char* path : {"core/one.cpp", "core/two.cpp", "rest/a.cpp"})
    dir.write(path, WikiRepo::ten_lines(path + 5));
  set_up_wiki(dir.path());
  auto wiki = open_wiki(dir.path(), "test");
  ASSERT_TRUE(is_saved(save(*wiki, "core", text_about("core/one.cpp"))));
  const auto planned = wiki->prepare();
  ASSERT_TRUE(is_saved(save(*wiki, "core", text_about("core/two.cpp"))));
  EXPECT_EQ(wiki->prepare(), planned) << "another text with the same sources";
  std::filesystem::create_directory(dir / "src");
  std::filesystem::rename(dir / "core", dir / "src/core");
  for (int process = 0; process < 2; ++process) {
    EXPECT_EQ(state_of(*wiki, "core").condition, PageCondition::moved);
    EXPECT_EQ(wiki->planned_with("src/core"), nullptr);
    wiki = open_wiki(dir.path(), "test");
  }
  ASSERT_TRUE(is_saved(save(*wiki, "core", text_about("src/core/one.cpp"))));
  EXPECT_EQ(state_of(*wiki, "core").condition, PageCondition::ok);
}

// Files, page and rows are the same there, whatever the folder is called.
TEST(KeptPages, ACopyOfTheRepositoryInAnotherFolderIsNotStale) {
  const TempDir dir;
  for (const char* path : {"core/main.c", "core/core.c", "core/elsewhere.c"})
    dir.write(path, WikiRepo::ten_lines("x") + WikiRepo::ten_lines(path));
  set_up_wiki(dir / "core");
  ASSERT_TRUE(is_saved(save(*open_wiki(dir / "core", "test"), "root", text_about("core.c"))));
  std::filesystem::copy(dir / "core", dir / "elsewhere", std::filesystem::copy_options::recursive);
  const auto copy = open_wiki(dir / "elsewhere", "test");
  EXPECT_EQ(state_of(*copy, "root").condition, PageCondition::ok) << state_of(*copy, "root").reason;
  EXPECT_THAT(copy->prepare()->plans.find("root")->title, HasSubstr("elsewhere"));
}

}  // namespace
}  // namespace ossilar::workers::wiki
