// Index and manifest: staged without the lock, put in place under it, and following the saves of a session.
#include "ossilar/workers/wiki/wiki_lists.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <latch>
#include <thread>

#include "ossilar/search/embedder.h"
#include "ossilar/store/sqlite_store.h"
#include "ossilar/workers/wiki/adoption.h"
#include "ossilar/workers/wiki/background.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::TempDir;
using ossilar::testing::WikiRepo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

ListContent content_of(const std::vector<std::string>& page_ids, const std::string& summary = "s") {
  ListContent content;
  for (const std::string& id : page_ids) {
    content.rows.set(id, Map{{"title", id},
                             {"rel_path", "pages/" + id + ".md"},
                             {"summary", summary},
                             {"content_hash", "h"},
                             {"build_cache", "{}"}});
  }
  return content;
}

class WikiListsTest : public ::testing::Test {
 protected:
  std::vector<std::string> listed() const {
    std::vector<std::string> ids;
    for (const auto& [id, entry] : load_manifest(wiki_).pages) ids.push_back(id);
    return ids;
  }

  TempDir dir_;
  const std::filesystem::path wiki_ = dir_ / "wiki";
  WikiLists lists_{wiki_, wiki_ / "pages"};
};

TEST_F(WikiListsTest, StagedListsAreNothingUntilTheyArePlaced) {
  {
    const auto staged = lists_.stage(content_of({"a"}));
    EXPECT_FALSE(std::filesystem::exists(wiki_ / "manifest.json"));
  }
  EXPECT_TRUE(std::filesystem::is_empty(wiki_)) << "what was not placed is gone";
  lists_.place(lists_.stage(content_of({"a", "b"})));
  EXPECT_THAT(listed(), ElementsAre("a", "b"));
  EXPECT_THAT(dir_.read("wiki/index.md"), HasSubstr("[b](pages/b.md)"));
}

TEST_F(WikiListsTest, ListsAreNotCurrentOnceAnotherHasPlacedTheirs) {
  WikiLists others(wiki_, wiki_ / "pages");
  auto old = lists_.stage(content_of({"a"}));
  EXPECT_TRUE(lists_.is_current(old));
  others.place(others.stage(content_of({"a", "b"})));
  EXPECT_FALSE(lists_.is_current(old));
  const auto anew = lists_.stage(content_of({"a", "b", "c"}));
  EXPECT_TRUE(lists_.is_current(anew));
}

TEST_F(WikiListsTest, TheIndexIsWrittenAgainOnlyWhenItReadsDifferentlyOrSomebodyChangedIt) {
  lists_.place(lists_.stage(content_of({"a"})));
  EXPECT_FALSE(lists_.stage(content_of({"a"})).index);
  EXPECT_TRUE(lists_.stage(content_of({"a"}, "another summary")).index);
  dir_.write("wiki/index.md", "by hand\n");
  EXPECT_TRUE(lists_.stage(content_of({"a"})).index);
}

TEST_F(WikiListsTest, KnowsItsOwnManifestFromAnothers) {
  EXPECT_FALSE(lists_.is_own(utils::stamp_of(wiki_ / "manifest.json"))) << "there is none";
  lists_.place(lists_.stage(content_of({"a"})));
  EXPECT_TRUE(lists_.is_own(utils::stamp_of(wiki_ / "manifest.json")));
  WikiLists(wiki_, wiki_ / "pages").place(lists_.stage(content_of({"a", "b"})));
  EXPECT_FALSE(lists_.is_own(utils::stamp_of(wiki_ / "manifest.json")));
}

TEST(Background, DoesWhatWasAskedForOnceForAllAndBeforeItsEnd) {
  std::latch begun(1);
  std::latch may_go_on(1);
  int done = 0;
  {
    Background background([&] {
      if (++done == 1) begun.count_down();
      may_go_on.wait();
      return false;
    });
    background.ask();
    begun.wait();
    for (int i = 0; i < 5; ++i) background.ask();
    may_go_on.count_down();
  }
  EXPECT_EQ(done, 2);
}

TEST(Background, TriesAgainWhatSaysSoButNotForEver) {
  int done = 0;
  {
    Background([&] { return ++done > 0; }).ask();
  }
  EXPECT_GT(done, 1);
}

// Whose lists follow every save but the first, as those of a large wiki do.
std::unique_ptr<WikiGenerator> follower(const WikiRepo& repo) {
  const auto root = repo.dir.path();
  WikiConfig config = load_config(root / "ossilar.toml");
  WikiPaths paths = wiki_paths(root, config);
  auto store = store::open_sqlite_store(paths.database());
  return std::make_unique<WikiGenerator>(WikiGenerator::Services{.paths = std::move(paths),
                                                                 .config = std::move(config),
                                                                 .checkout = source::read_checkout(root),
                                                                 .store = std::move(store),
                                                                 .embedder = search::make_local_embedder(),
                                                                 .writer = "follower",
                                                                 .lists_follow_above = 0});
}

TEST(FollowingLists, TellOfEverySaveOnceAllHaveEnded) {
  constexpr int kRounds = 15;
  const WikiRepo repo;
  {
    const auto one = follower(repo);
    const auto two = follower(repo);
    const auto save = [](WikiGenerator& wiki, const std::string& page, int round) {
      const Answer answer =
          wiki.save_agent_page(page, WikiRepo::text_about(page, "Round " + std::to_string(round) + "."));
      EXPECT_TRUE(answer.contains("saved")) << answer;
    };
    const auto rounds = [&](WikiGenerator& wiki, const std::string& page) {
      for (int round = 0; round < kRounds; ++round) save(wiki, page, round);
    };
    std::thread alpha([&] { rounds(*one, "alpha"); });
    std::thread beta([&] { rounds(*two, "beta"); });
    alpha.join();
    beta.join();
  }
  EXPECT_THAT(repo.open()->check(false).findings, IsEmpty());
}

}  // namespace
}  // namespace ossilar::workers::wiki
