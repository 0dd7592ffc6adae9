#include <limits>
#include <string>
#include <vector>

#include "ossilar/store/contract/store_fixture.h"

namespace ossilar::store {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class HistoryTest : public StoreTest {
 protected:
  static PageVersion version(const std::string& name) { return {.version = name, .text = "text of " + name}; }

  void keep(const std::string& page, const std::vector<std::string>& names, std::size_t most = 100) {
    std::vector<PageVersion> versions;
    for (const std::string& name : names) versions.push_back(version(name));
    store.keep_versions("main", page, versions, most);
  }

  // "NUMBER NAME TEXT" of each, the newest first.
  std::vector<std::string> kept(const std::string& page, const std::string& branch = "main") {
    std::vector<std::string> lines;
    for (const PageVersion& each : store.page_versions(branch, page)) {
      EXPECT_EQ(each.text, "") << "lists come without texts";
      lines.push_back(std::to_string(each.number) + " " + each.version + " " +
                      store.version_text(branch, page, each.number).value_or("-"));
    }
    return lines;
  }
};

TEST_F(HistoryTest, AVersionComesBackWithEveryField) {
  const std::string text = "# A\n\n😀 \"'--;\n";
  store.keep_versions("main", "a",
                      {{.number = 9,
                        .version = "ab12",
                        .at = "2026-01-02T03:04:05Z",
                        .commit = "c0",
                        .client = "an agent 1.0",
                        .action = "saved",
                        .text = text}},
                      1);
  const auto versions = store.page_versions("main", "a");
  ASSERT_EQ(versions.size(), 1);
  const PageVersion& found = versions[0];
  EXPECT_THAT((std::vector{found.version, found.at, found.commit, found.client, found.action}),
              ElementsAre("ab12", "2026-01-02T03:04:05Z", "c0", "an agent 1.0", "saved"));
  EXPECT_EQ(found.number, 1) << "the store counts";
  EXPECT_EQ(store.version_text("main", "a", 1), text);
  EXPECT_EQ(store.version_text("main", "a", 9), std::nullopt);
  EXPECT_EQ(store.version_text("main", "b", 1), std::nullopt);
}

TEST_F(HistoryTest, KeepsTheLastOfEachPageAndBranch) {
  keep("a", {"one", "two"}, 3);
  keep("a", {"three", "four"}, 3);
  keep("b", {"one"}, 3);
  store.keep_versions("release", "a", {version("r")}, 3);
  EXPECT_THAT(kept("a"), ElementsAre("4 four text of four", "3 three text of three", "2 two text of two"));
  EXPECT_THAT(kept("b"), ElementsAre("1 one text of one"));
  EXPECT_THAT(store.newest_texts("main", {"b", "none", "a"}),
              ElementsAre(Pair("a", "text of four"), Pair("b", "text of one")));
  EXPECT_THAT(kept("a", "release"), ElementsAre("1 r text of r"));
  keep("a", {"five"}, 1);  // a smaller limit counts from the next version on
  EXPECT_THAT(kept("a"), ElementsAre("5 five text of five"));
  keep("a", {"six"}, std::numeric_limits<std::uint32_t>::max());
  EXPECT_THAT(kept("a"), ElementsAre("6 six text of six", "5 five text of five"));
}

TEST_F(HistoryTest, AVersionIsNotAddedToItself) {
  keep("a", {"one"});
  keep("a", {"one", "two"});  // found as it was, then written
  keep("a", {"two", "two"});
  keep("a", {"one"});  // a former text again is news
  keep("a", {});
  EXPECT_THAT(kept("a"), ElementsAre("3 one text of one", "2 two text of two", "1 one text of one"));
}

TEST_F(HistoryTest, OutlivesThePageAndMovesBehindWhatTheOtherIdHad) {
  store.upsert_wiki_page("main", "a", "A", {});
  keep("a", {"one", "two"});
  store.remove_page("main", "a");
  EXPECT_THAT(kept("a"), ElementsAre("2 two text of two", "1 one text of one"));
  store.move_versions("main", "a", "b");
  EXPECT_THAT(kept("a"), IsEmpty());
  EXPECT_THAT(kept("b"), ElementsAre("2 two text of two", "1 one text of one"));
  keep("a", {"new", "newer", "newest"}, 2);
  store.move_versions("main", "a", "b");
  EXPECT_THAT(kept("b"), ElementsAre("5 newest text of newest", "4 newer text of newer", "2 two text of two",
                                     "1 one text of one"));
  store.move_versions("main", "b", "b");
  store.move_versions("main", "none", "b");
  store.move_versions("release", "b", "c");
  keep("b", {"last"}, 4);
  EXPECT_THAT(kept("b"), ElementsAre("6 last text of last", "5 newest text of newest",
                                     "4 newer text of newer", "2 two text of two"));
}

TEST_F(HistoryTest, ComesAndGoesWithItsTransaction) {
  {
    const auto group = store.begin("store a page");
    group->keep_versions("main", "a", {version("lost")}, 9);
    EXPECT_EQ(group->page_versions("main", "a").size(), 1);
  }
  EXPECT_THAT(kept("a"), IsEmpty());
  const auto group = store.begin("store a page");
  EXPECT_NE(refusal([&] { group->keep_versions("main", "a", {version("bad"), version("\xff")}, 9); }), "");
  group->keep_versions("main", "a", {version("good")}, 9);
  group->commit();
  EXPECT_THAT(kept("a"), ElementsAre("1 good text of good"));
}

}  // namespace
}  // namespace ossilar::store
