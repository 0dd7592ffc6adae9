#include <thread>

#include "ossilar/store/contract/store_fixture.h"

namespace ossilar::store {
namespace {

using ::testing::SizeIs;

class StoreTransactionTest : public StoreTest {
 protected:
  static std::int64_t put(WikiStore& into, const std::string& page, const std::string& description = "") {
    return into.upsert_wiki_page("main", page, page, {.description = description});
  }
};

TEST_F(StoreTransactionTest, WritesAreVisibleInsideAtOnceAndOutsideAfterTheCommit) {
  put(store, "before");
  auto group = store.begin("store a page");
  const std::int64_t key = put(*group, "a");
  group->store_chunks(key, {chunk(0, "x")}, {});
  PageDigests digests = group->load_digests("main");
  digests.set("a", Map{{"d", 1}});
  group->persist_digests("main", digests, {{"before", "why"}});
  group->upsert_wiki_state("main", {.page_count = 2});

  EXPECT_EQ(group->get_wiki_pages("main").size(), 2);
  EXPECT_THAT(group->chunks("main", "a"), SizeIs(1));
  EXPECT_NE(group->load_digests("main").find("a"), nullptr);
  EXPECT_THAT(group->stale_marks("main"), SizeIs(1));
  EXPECT_EQ(store.get_wiki_pages("main").size(), 1);
  EXPECT_EQ(stored("SELECT count(*) FROM pages"), 1);

  group->commit();
  group.reset();
  EXPECT_EQ(store.get_wiki_pages("main").size(), 2);
  const auto other = database->open();
  EXPECT_THAT(other->chunks("main", "a"), SizeIs(1));
  EXPECT_NE(other->load_digests("main").find("a"), nullptr);
  EXPECT_EQ(other->wiki_state("main")->page_count, 2);
}

TEST_F(StoreTransactionTest, WithoutACommitNothingIsStored) {
  put(store, "before");
  {
    const auto group = store.begin("store a page");
    put(*group, "a");
    group->remove_page("main", "before");
    EXPECT_EQ(group->get_wiki_pages("main").size(), 1);
  }
  EXPECT_NE(store.get_wiki_pages("main").find("before"), nullptr);
  EXPECT_EQ(store.get_wiki_pages("main").find("a"), nullptr);
  put(store, "b");
  EXPECT_EQ(database->open()->get_wiki_pages("main").size(), 2);
}

TEST_F(StoreTransactionTest, AFailedWriteIsTakenBackAlone) {
  const auto group = store.begin("store a page");
  const std::int64_t key = put(*group, "a");
  EXPECT_NE(refusal([&] { group->store_chunks(key, {chunk(0, "x"), chunk(1, "y", Map())}, {}); }), "");
  EXPECT_NE(refusal([&] { put(*group, "b", "\xff"); }), "");
  put(*group, "c");
  group->commit();
  const auto other = database->open();
  EXPECT_EQ(other->get_wiki_pages("main").size(), 2);
  EXPECT_EQ(store.get_wiki_pages("main").size(), 2);
  EXPECT_EQ(stored("SELECT count(*) FROM passages"), 0);
}

TEST_F(StoreTransactionTest, GroupsOfThreadsComeOneAfterTheOther) {
  constexpr int kThreads = 4;
  constexpr int kGroups = 10;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kGroups; ++i) {
        const auto group = store.begin("store pages");
        const std::size_t before = group->get_wiki_pages("main").size();
        put(*group, std::to_string(t) + "/" + std::to_string(i) + "a");
        put(*group, std::to_string(t) + "/" + std::to_string(i) + "b");
        EXPECT_EQ(group->get_wiki_pages("main").size(), before + 2);
        group->commit();
      }
    });
  }
  while (store.get_wiki_pages("main").size() < std::size_t{2} * kThreads * kGroups)
    EXPECT_EQ(store.get_wiki_pages("main").size() % 2, 0) << "half a group was seen";
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace ossilar::store
