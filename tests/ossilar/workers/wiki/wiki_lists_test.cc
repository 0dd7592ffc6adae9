// Index and manifest: staged without the lock, put in place under it, and following the saves of a session.
#include "ossilar/workers/wiki/wiki_lists.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

#include "ossilar/search/embedder.h"
#include "ossilar/store/forwarding_store.h"
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

ListContent rows_of(const std::vector<std::string>& page_ids, const std::string& summary) {
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
  ListContent content_of(const std::vector<std::string>& page_ids, const std::string& summary = "s") const {
    ListContent content = rows_of(page_ids, summary);
    content.over = lists_.manifest_in_place();
    return content;
  }

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

// What a manifest tells of: page ids with hashes, the commit, and as values the entries; or why it tells
// nothing.
std::string told_by(const std::string& text) {
  try {
    const ManifestContent content = parse_manifest(text, "m");
    std::string told = content.commit;
    for (const auto& [id, entry] : content.pages)
      told += " " + id + "=" + entry.content_hash() + utils::text_form(entry.value()["citations"]);
    return told;
  } catch (const utils::Error& error) {
    return error.what();
  }
}

TEST(Manifest, IsReadAlikeInEveryFormThatJsonHas) {
  const std::string begin = "{\n\"format\": 1,\n\"commit\": \"c\",\n\"lint\": {},\n\"pages\": [\n";
  const std::string a = R"({"page_id": "a", "content_hash": "1", "citations": [1]})";
  const std::string b = R"({"page_id": "b", "content_hash": "2", "citations": []})";
  const std::string end = "\n]\n}\n";
  const std::string all = "c a=1[1] b=2[]";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {begin + a + ",\n" + b + end, all},
      {begin + a + ",\r\n" + b + end, all},
      {begin + a + ", " + b + end, all},
      {begin + a + ",\n\n" + b + end + "\n", all},
      {Map::parse(begin + a + ",\n" + b + end).dump(4), all},
      {begin + "]\n}\n", "c"},
      {begin + a + "\n],\n\"pages\": [\n" + b + end, "c b=2[]"},
      {R"({"format": 1, "commit": "c", "pages": [], "note": ")" + begin + a + end, "not JSON"},
      {begin + a + "\n" + b + end, "not JSON at byte 110"},
      {begin + a + ",\n" + b + "," + end, "not JSON at byte"},
      {begin + a + ",\n" + b.substr(0, 20) + end, "not JSON at byte"},
      {begin + a + "}," + end, "not JSON at byte"},
      {begin + "{}" + end, "'' is no page id"},
      {"{\n\"format\": 2,\n\"pages\": [\n" + a + end, "not a manifest of format 1"},
  };
  for (const auto& [text, told] : rows) {
    if (told.front() == 'c') {
      EXPECT_EQ(told_by(text), told) << text;
    } else {
      EXPECT_THAT(told_by(text), HasSubstr(told)) << text;
    }
  }
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

// Rows that were read before another placed lists are older than those, whenever they are made into lists.
TEST_F(WikiListsTest, ListsOfRowsThatWereReadBeforeAnotherPlacedTheirsAreNotCurrent) {
  const ListContent old = content_of({"a"});
  WikiLists others(wiki_, wiki_ / "pages");
  others.place(others.stage(content_of({"a", "b"})));
  EXPECT_FALSE(lists_.is_current(lists_.stage(old)));
}

// A file that takes the place of two others soon after one another may get the number of the first.
TEST_F(WikiListsTest, AManifestOfTheSameSizeAndTimeIsAnother) {
  WikiLists others(wiki_, wiki_ / "pages");
  for (int round = 0; round < 200; ++round) {
    const auto staged = lists_.stage(content_of({"a"}));
    for (int times = 0; times < 2; ++times) others.place(others.stage(content_of({"b"})));
    ASSERT_FALSE(lists_.is_current(staged)) << "in round " << round;
  }
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
      return Background::Outcome::done;
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
    Background background([&] {
      ++done;
      return Background::Outcome::again;
    });
    background.ask();
  }
  EXPECT_GT(done, 1);
}

TEST(Background, WhoWaitsHearsWhenWhatWasAskedForIsDone) {
  std::atomic<int> done = 0;
  Background background([&] {
    ++done;
    return done == 1 ? Background::Outcome::again : Background::Outcome::done;
  });
  background.ask();
  background.wait(std::chrono::hours(1));
  EXPECT_EQ(done, 2);
  background.wait(std::chrono::hours(1));  // nothing is asked for
}

// What is open in a process that stays.
std::unique_ptr<WikiGenerator> follower(const WikiRepo& repo, std::uint64_t above = 0,
                                        std::unique_ptr<store::WikiStore> store = nullptr) {
  const auto root = repo.dir.path();
  WikiConfig config = load_config(root / "ossilar.toml");
  WikiPaths paths = wiki_paths(root, config);
  if (!store) store = store::open_sqlite_store(paths.database());
  return std::make_unique<WikiGenerator>(WikiGenerator::Services{.paths = std::move(paths),
                                                                 .config = std::move(config),
                                                                 .checkout = source::read_checkout(root),
                                                                 .store = std::move(store),
                                                                 .embedder = search::make_local_embedder(),
                                                                 .writer = "follower",
                                                                 .lists_follow_above = above});
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

TEST(FollowingLists, AreThereWithTheAnswerAsLongAsTheyAreShort) {
  const WikiRepo repo;
  const auto wiki = follower(repo, 1'000'000);
  for (int round = 0; round < 10; ++round) {
    ASSERT_TRUE(
        wiki->save_agent_page("alpha", WikiRepo::text_about("alpha", "Round " + std::to_string(round) + "."))
            .contains("saved"));
    ASSERT_THAT(repo.open()->check(false).findings, IsEmpty()) << "in round " << round;
  }
}

// A store that cannot commit a group.
class NoCommit final : public store::ForwardingStore {
 public:
  using ForwardingStore::ForwardingStore;
  std::unique_ptr<store::WriteGroup> begin_group(const std::string& attempt) override {
    class Group final : public store::WriteGroup {
     public:
      explicit Group(std::unique_ptr<store::WriteGroup> inner) : inner_(std::move(inner)) {}
      void commit() override { throw store::StorageError("disk full"); }

     private:
      std::unique_ptr<store::WriteGroup> inner_;
    };
    return std::make_unique<Group>(ForwardingStore::begin_group(attempt));
  }
};

TEST(FollowingLists, DoNotTellOfASaveThatWasNotCommitted) {
  const WikiRepo repo;
  ASSERT_TRUE(repo.open()->save_agent_page("alpha", WikiRepo::text_about("alpha")).contains("saved"));
  const std::string before = repo.dir.read("wiki/manifest.json");
  const auto sqlite = store::open_sqlite_store(repo.dir / ".ossilar/index.db");
  {
    const auto wiki = follower(repo, 1'000'000, std::make_unique<NoCommit>(*sqlite));
    EXPECT_THROW(wiki->save_agent_page("alpha", WikiRepo::text_about("alpha", "Another.")),
                 store::StorageError);
  }
  EXPECT_EQ(repo.dir.read("wiki/manifest.json"), before);
}

}  // namespace
}  // namespace ossilar::workers::wiki
