#include "ossilar/workers/wiki/plan/kept_ids.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/plan/planner.h"
#include "support/plans.h"
#include "support/source_tree.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::expect_sound;
using ossilar::testing::files_in;
using ossilar::testing::page;
using ossilar::testing::Sharing;
using ossilar::testing::tree_of;
using ossilar::testing::TreeFile;
using ossilar::testing::operator+;
using ::testing::ElementsAre;

std::set<std::string> ids_of(const std::vector<PagePlan>& pages) {
  std::set<std::string> ids;
  for (const PagePlan& p : pages) ids.insert(p.page_id);
  return ids;
}

// A repository that changes, with the pages that were saved in it. A file's
// content is its first path until edit() gives it another, so a file that is
// moved stays what it is.
class History {
 public:
  explicit History(std::vector<TreeFile> files) { add(std::move(files)); }

  void add(std::vector<TreeFile> files) {
    for (TreeFile& file : files) {
      if (file.content.empty()) file.content = file.path;
      files_[file.path] = file;
    }
  }
  void remove(const std::string& path) { files_.erase(path); }
  void edit(const std::string& path) { files_.at(path).content += " edited"; }

  // Files whose paths begin with `from` begin with `to` afterwards.
  void move(const std::string& from, const std::string& to) {
    std::map<std::string, TreeFile> moved;
    for (auto& [path, file] : files_) {
      if (path.starts_with(from)) file.path = to + path.substr(from.size());
      moved.emplace(file.path, file);
    }
    files_ = std::move(moved);
  }

  source::SourceIndex index() const {
    std::vector<TreeFile> files;
    files.reserve(files_.size());
    for (const auto& [path, file] : files_) files.push_back(file);
    return tree_of(files);
  }
  std::vector<PagePlan> derived() const { return derive_plan(index(), "Proj"); }
  std::vector<PagePlan> plan() const {
    const source::SourceIndex now = index();
    return keep_ids(derive_plan(now, "Proj"), saved, now, named);
  }

  // As a save of the planned page stores it; `cited` are those of its sources
  // that it cites.
  void save(const std::string& id, const std::set<std::string>& cited = {}) {
    const std::vector<PagePlan> pages = plan();
    save(page(pages, id), cited);
  }
  void save_all() {
    for (const PagePlan& p : plan()) save(p, {});
  }

  // How many saved modules are not in the plan, or without any of their files,
  // though more than half of those are there and no other saved page tells of
  // them. A file is told by its content here.
  std::size_t count_lost(const std::vector<PagePlan>& pages) const {
    const source::SourceIndex now = index();
    std::multimap<std::string, std::string> paths;  // by content
    for (const auto& file : now.files()) paths.emplace(file->sha256.hex(), file->path);
    std::map<std::string, std::set<std::string>> planned,
        told_by;  // page to files, content to pages
    for (const PagePlan& p : pages) planned[p.page_id] = {p.source_files.begin(), p.source_files.end()};
    for (const auto& [id, of] : saved) {
      for (const SavedFile& file : of.files) told_by[file.content.hex()].insert(id);
    }
    std::size_t lost = 0;
    for (const auto& [id, of] : saved) {
      std::size_t there = 0, given = 0;
      for (const SavedFile& file : of.files) {
        const auto [first, last] = paths.equal_range(file.content.hex());
        there += first != last && told_by[file.content.hex()].size() == 1 ? 1 : 0;
        for (auto at = first; at != last; ++at) given += planned[id].count(at->second);
      }
      if (of.type == "module" && 2 * there > of.files.size() && given == 0) ++lost;
    }
    return lost;
  }

  SavedPages saved;
  StringSet named;

 private:
  void save(const PagePlan& plan, const std::set<std::string>& cited) {
    const source::SourceIndex now = index();
    SavedPage page{.type = plan.type, .files = {}};
    for (const std::string& path : plan.stored_source_files())
      page.files.push_back({path, now.find(path)->sha256, cited.count(path) > 0});
    saved[plan.page_id] = std::move(page);
  }

  std::map<std::string, TreeFile> files_;
};

std::vector<TreeFile> alphabet_in(const std::string& folder, std::int64_t lines,
                                  const std::string& end = "lib.c") {
  std::vector<TreeFile> files;
  for (char c = 'a'; c <= 'z'; ++c) {
    std::string path = folder;
    path.append(1, c).append(end);
    files.push_back({std::move(path), lines});
  }
  return files;
}

// Five files that have the same content in every folder.
std::vector<TreeFile> copies(const std::string& folder) {
  std::vector<TreeFile> files = files_in(folder, "x", 5, 200);
  for (TreeFile& file : files) file.content = file.path.substr(folder.size());
  return files;
}

struct Change {
  const char* why;
  std::vector<TreeFile> files;
  std::vector<std::function<void(History&)>> steps;
  bool names_alone_lose;  // whether the plan by names alone loses pages: the
                          // change is one that needs this
};

std::vector<std::function<void(History&)>> growth() {
  std::vector<std::function<void(History&)>> steps;
  for (int round = 0; round < 3; ++round) {
    for (char c = 'a'; c <= 'z'; ++c) {
      std::string path = "src/";
      path.append(1, c).append("x").append(std::to_string(round)).append(".c");
      steps.emplace_back([path](History& h) { h.add({{path, 700}}); });
    }
  }
  return steps;
}

std::vector<Change> changes() {
  const auto packages =
      files_in("core/", "c", 12, 300) + files_in("util/", "u", 12, 300) + files_in("net/", "n", 12, 300);
  return {
      {"a flat folder grows file by file", alphabet_in("src/", 500) + files_in("src/", "main", 1, 300),
       growth(), true},
      {"a flat folder shrinks until it is one page",
       alphabet_in("src/", 700),
       {[](History& h) {
          for (char c = 'u'; c <= 'z'; ++c) h.remove(std::string("src/") + c + "lib.c");
        },
        [](History& h) {
          for (char c = 'a'; c <= 'm'; ++c) h.remove(std::string("src/") + c + "lib.c");
        }},
       true},
      {"a package is moved into src/", packages, {[](History& h) { h.move("core/", "src/core/"); }}, true},
      {"all packages are moved into src/",
       packages,
       {[](History& h) {
         for (const char* folder : {"core/", "util/", "net/"}) h.move(folder, std::string("src/") + folder);
       }},
       true},
      {"a divided folder is renamed",
       alphabet_in("src/", 700) + files_in("src/deep/", "d", 20, 300),
       {[](History& h) { h.move("src/", "lib/"); }},
       true},
      {"two folders are merged into a third",
       packages,
       {[](History& h) { h.move("core/", "base/"); }, [](History& h) { h.move("util/", "base/"); }},
       true},
      {"one folder is merged into another", packages, {[](History& h) { h.move("core/", "util/"); }}, true},
      {"a folder is split in two and is gone",
       packages,
       {[](History& h) {
         for (int i = 0; i < 12; ++i) {
           const std::string name = "c" + std::to_string(i) + ".c";
           h.move("core/" + name, (i < 5 ? "left/" : "right/") + name);
         }
       }},
       true},
      {"two folders change their names with each other",
       packages,
       {[](History& h) {
         h.move("core/", "x/");
         h.move("util/", "core/");
         h.move("x/", "util/");
       }},
       true},
      {"files are deleted",
       packages,
       {[](History& h) { h.remove("core/c0.c"), h.remove("core/c1.c"); }},
       false},
  };
}

// Whether the pages are saved once or after each step, and in whatever order
// their rows come.
TEST(KeepIds, NoSavedPageWhoseFilesAreThereLosesItsId) {
  for (const Change& change : changes()) {
    for (const bool saves_on : {false, true}) {
      SCOPED_TRACE(std::string(change.why) + (saves_on ? ", saved after each step" : ", saved at the start"));
      History history(change.files);
      history.save_all();
      EXPECT_EQ(ids_of(history.plan()), ids_of(history.derived())) << "nothing changed yet";
      std::size_t lost_by_names = 0;
      for (const auto& step : change.steps) {
        step(history);
        const std::vector<PagePlan> pages = history.plan();
        lost_by_names += history.count_lost(history.derived());
        EXPECT_EQ(history.count_lost(pages), 0U);
        expect_sound(pages);
        if (!saves_on) continue;
        history.save_all();
        EXPECT_EQ(history.plan(), pages) << "pages saved as they are planned are planned the same";
      }
      EXPECT_EQ(saves_on || lost_by_names > 0, saves_on || change.names_alone_lose);
    }
  }
}

// What no table thinks of: any folder becomes, or goes into, any other, and
// some pages are saved now and then.
TEST(KeepIds, StaysAPlanThroughAnyHistory) {
  const std::vector<std::string> folders = {"a/", "b/", "a/b/", "src/", "src/a/", "lib/x/"};
  for (unsigned seed = 0; seed < 30; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto any = [&] { return folders[random() % folders.size()]; };
    History history(alphabet_in("src/", 500) + files_in("a/", "a", 9, 300) + files_in("b/", "b", 9, 300));
    for (int step = 0; step < 12; ++step) {
      const std::vector<PagePlan> before = history.plan();
      for (const std::string& id : ids_of(before)) {
        if (random() % 3 != 0) continue;
        history.save(id);
        EXPECT_EQ(history.plan(), before) << "saved as it is planned: " << id;
      }
      const std::string from = any();
      const std::string to = any();
      if (!to.starts_with(from)) history.move(from, to);
      history.add(files_in(any(), "n" + std::to_string(step) + "_", static_cast<int>(random() % 5), 400));
      const std::vector<PagePlan> pages = history.plan();
      expect_sound(pages, Sharing::allowed);
      EXPECT_EQ(history.count_lost(pages), 0U);
      History saved = history;
      saved.save_all();
      EXPECT_EQ(saved.plan(), pages);
    }
  }
}

// How many pages have to be written after the change, and how many of the saved
// ones are out of the plan.
TEST(KeepIds, ARenamedTreeLeavesNothingToWrite) {
  History history(alphabet_in("src/", 700) + files_in("src/deep/", "d", 20, 300));
  history.save_all();
  history.move("src/", "lib/");
  EXPECT_EQ(ids_of(history.plan()).size(), ids_of(history.derived()).size());
  for (const PagePlan& p : history.plan()) EXPECT_TRUE(history.saved.contains(p.page_id)) << p.page_id;
  EXPECT_THAT(page(history.plan(), "src/deep").source_files,
              ::testing::Each(::testing::StartsWith("lib/deep/")));
  EXPECT_EQ(page(history.plan(), "src/deep").parent, "src");
  EXPECT_EQ(page(history.plan(), "src/deep").title, "lib/deep") << "the title follows the tree";
}

TEST(KeepIds, DecidesByWhereMostOfAPageWent) {
  const auto two = files_in("a/", "x", 10, 200) + files_in("b/", "y", 10, 200);
  struct Row {
    const char* why;
    std::vector<TreeFile> files;
    std::vector<std::pair<std::string, std::set<std::string>>> saved;  // page, and what it cites
    std::function<void(History&)> change;
    std::map<std::string, std::string> has;  // page and a source of it
    std::vector<std::string> lacks;
  };
  const std::vector<Row> rows = {
      {"less than half is there",
       two,
       {{"a", {}}},
       [](History& h) {
         h.move("a/", "c/");
         for (int i = 0; i < 5; ++i) h.remove("c/x" + std::to_string(i) + ".c");
       },
       {{"c", "c/x9.c"}},
       {"a"}},
      {"what is cited is gone",
       two,
       {{"a", {"a/x0.c"}}},
       [](History& h) {
         h.remove("a/x0.c");
         h.move("a/", "c/");
       },
       {{"c", "c/x9.c"}},
       {"a"}},
      {"what is cited is there",
       two,
       {{"a", {"a/x9.c"}}},
       [](History& h) {
         h.move("a/", "c/");
         for (int i = 0; i < 8; ++i) h.remove("c/x" + std::to_string(i) + ".c");
       },
       {{"a", "c/x9.c"}},
       {"c"}},
      {"the page that another folder of its name would give is another's",
       two,
       {{"a", {}}},
       [](History& h) {
         h.move("a/", "c/");
         h.add(files_in("a/", "new", 10, 200));
       },
       {{"a", "c/x0.c"}, {"a-2", "a/new0.c"}},
       {"c"}},
      {"one file that is left is enough to stay",
       two,
       {{"a", {}}},
       [](History& h) {
         h.move("a/x1.c", "c/x1.c"), h.move("a/x2.c", "c/x2.c"), h.move("a/x3.c", "c/x3.c");
         h.move("a/x4.c", "c/x4.c"), h.move("a/x5.c", "c/x5.c"), h.move("a/x6.c", "c/x6.c");
       },
       {{"a", "a/x0.c"}, {"c", "c/x1.c"}},
       {}},
      {"merged into a saved page: a page of its own",
       two,
       {{"a", {}}, {"b", {}}},
       [](History& h) { h.move("a/", "b/"); },
       {{"a", "b/x0.c"}, {"b", "b/y0.c"}},
       {}},
      {"merged into a page that was not saved: that page",
       two,
       {{"a", {}}},
       [](History& h) { h.move("a/", "b/"); },
       {{"a", "b/y0.c"}},
       {"b"}},
      {"a copy of what another saved page tells is no place to go",
       copies("a/") + copies("b/"),
       {{"a", {}}, {"b", {}}},
       [](History& h) {
         for (int i = 0; i < 5; ++i) h.remove("a/x" + std::to_string(i) + ".c");
       },
       {{"b", "b/x0.c"}},
       {"a"}},
      {"an id that the configuration names stays",
       two,
       {{"a", {}}},
       [](History& h) {
         h.move("a/", "c/");
         h.named = {"c"};
       },
       {{"a", "c/x0.c"}, {"c", "c/x0.c"}},
       {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    History history(row.files);
    for (const auto& [id, cited] : row.saved) history.save(id, cited);
    row.change(history);
    const std::vector<PagePlan> pages = history.plan();
    for (const auto& [id, source] : row.has) {
      EXPECT_THAT(page(pages, id).source_files, ::testing::Contains(source)) << id;
    }
    for (const std::string& id : row.lacks) EXPECT_FALSE(ids_of(pages).contains(id)) << id;
  }
}

TEST(KeepIds, APageOfItsOwnStandsBesideThatOfItsFiles) {
  History history(alphabet_in("src/", 700) + files_in("top/", "t", 10, 300));
  history.save_all();
  const std::vector<std::string> was = page(history.plan(), "src/a-g").source_files;
  for (char c = 'h'; c <= 'z'; ++c) history.remove(std::string("src/") + c + "lib.c");
  const std::vector<PagePlan> pages = history.plan();
  const PagePlan& own = page(pages, "src/a-g");
  EXPECT_EQ(own.source_files, was);
  EXPECT_EQ(own.parent, "");
  EXPECT_EQ(own.level, 1);
  EXPECT_THAT(own.related_pages, ElementsAre("src"));
  EXPECT_EQ(own.title, "src/a-g");
  expect_sound(pages);
}

// Pages of another type are the configuration's, and those about the whole have
// no files that could move.
TEST(KeepIds, LeavesAllOtherPagesAlone) {
  History history(files_in("a/", "x", 10, 200));
  history.saved["overview"] = {.type = "overview", .files = {{"gone.md", {}, true}}};
  history.saved["topics/x"] = {.type = "topic", .files = {{"a/x0.c", {}, false}}};
  history.saved["empty"] = {.type = "module", .files = {}};
  EXPECT_EQ(history.plan(), history.derived());
}

}  // namespace
}  // namespace ossilar::workers::wiki
