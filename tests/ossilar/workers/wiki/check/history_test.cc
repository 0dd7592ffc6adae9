// What the history of a page tells after everything that can happen to it. One law holds in all tests: the
// newest version of a stored page is its page file, and the row is about it.
#include "ossilar/workers/wiki/host/history.h"
#include "ossilar/workers/wiki/asking/page_versions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "findings.h"
#include "ossilar/workers/wiki/asking/following.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/check/removal.h"
#include "ossilar/workers/wiki/check/renaming.h"
#include "ossilar/workers/wiki/repo_facts.h"
#include "support/hooked_store.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::error_of;
using ossilar::testing::HookedStore;
using ossilar::testing::is_saved;
using ossilar::testing::state_of;
using ossilar::testing::WikiRepo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class HistoryTest : public ::testing::Test {
 protected:
  explicit HistoryTest(const std::string& config = "") : repo_(config), wiki_(repo_.open()) {}

  Answer save(const std::string& text, const std::string& client = "agent",
              const std::optional<std::string>& title = {}) {
    return save_page(*wiki_, {.page_id = "alpha", .content = text, .title = title}, task_,
                     {.change = {.client = client}})
        .answer;
  }
  Answer restore(const std::string& version, const std::optional<std::string>& if_version = {}) {
    return restore_page(
               *wiki_,
               {.page_id = "alpha", .version = version, .if_version = if_version, .client = "restorer"},
               task_)
        .answer;
  }
  std::string diff(const std::optional<std::string>& from = {}, const std::optional<std::string>& to = {}) {
    const auto compared = compare_versions(*wiki_, "alpha", from, to);
    const auto* refusal = std::get_if<Answer>(&compared);
    return refusal == nullptr ? std::get<VersionComparison>(compared).diff : "refused: " + error_of(*refusal);
  }
  // "NUMBER ACTION CLIENT" of each, the newest first, after a look at the law.
  std::vector<std::string> log(const std::string& page_id = "alpha") {
    std::vector<std::string> lines;
    const PageHistory history = page_history(*wiki_, page_id);
    for (const store::PageVersion& each : history.versions) {
      EXPECT_THAT(each.at, HasSubstr("T"));
      lines.push_back(std::to_string(each.number) + " " + each.action + " " + each.client);
    }
    expect_newest_is_the_file(history);
    return lines;
  }
  void expect_newest_is_the_file(const PageHistory& history) {
    const auto rows = wiki_->stored_pages();
    const Map* row = rows.find(history.page_id);
    if (row == nullptr) return;
    ASSERT_FALSE(history.versions.empty());
    const auto text =
        wiki_->store().version_text(wiki_->branch(), history.page_id, history.versions[0].number);
    EXPECT_EQ(text, repo_.page(history.page_id));
    EXPECT_EQ(_text_hash(*text), utils::string_member(*row, "content_hash"));
    EXPECT_EQ(history.versions[0].version, version_of(*text));
  }

  const WikiRepo repo_;
  std::shared_ptr<Wiki> wiki_;
  utils::Task task_;
};

TEST_F(HistoryTest, EachWayOfChangingAPageIsNoted) {
  ASSERT_TRUE(is_saved(save(WikiRepo::text_about("alpha"))));
  ASSERT_TRUE(is_saved(save(WikiRepo::text_about("alpha", "Again."), "shell")));
  ASSERT_TRUE(is_saved(save(WikiRepo::text_about("alpha", "Again."), "a third")));
  EXPECT_THAT(log(), ElementsAre("2 saved shell", "1 saved agent")) << "the same file is no news";

  repo_.dir.write("src/alpha.cpp", "// one line more\n" + WikiRepo::ten_lines("alpha"));
  wiki_->prepare();
  ASSERT_EQ(sync_pages(*wiki_, std::nullopt, false, "follower", task_).size(), 1);
  ASSERT_TRUE(is_saved(confirm_page(*wiki_, "alpha", {}, {}, "reader", task_)));
  EXPECT_THAT(log(),
              ElementsAre("4 confirmed reader", "3 followed follower", "2 saved shell", "1 saved agent"));

  repo_.dir.write("wiki/pages/alpha.md", repo_.page("alpha") + "\nby hand\n");
  ASSERT_TRUE(is_saved(save(WikiRepo::text_about("alpha", "Third."))));
  auto lines = log();
  EXPECT_EQ(lines[0], "6 saved agent");
  EXPECT_EQ(lines[1], "5 found ") << "a hand's edit is not the next author's";

  repo_.dir.write("wiki/pages/alpha.md", repo_.page("alpha") + "\nby hand again\n");
  ossilar::testing::check(repo_, true);
  EXPECT_EQ(log()[0], "7 adopted ");
  ASSERT_EQ(error_of(remove_page(*wiki_, "alpha", {}, "remover", task_)), "");
  EXPECT_EQ(log()[0], "8 removed remover");
}

TEST_F(HistoryTest, ARenamedPageTakesItsHistoryAlong) {
  const std::string linking = "On [Alpha]. [src/beta.cpp:L1] [src/beta.cpp:L2]\n";
  ASSERT_TRUE(is_saved(save(WikiRepo::text_about("alpha"))));
  ASSERT_TRUE(is_saved(ossilar::testing::save(*wiki_, "beta", linking)));
  repo_.dir.write(
      "ossilar.toml",
      "[[page]]\nid = \"gamma\"\ntitle = \"Gamma\"\ntype = \"module\"\nsources = "
      "[\"src/alpha.cpp\"]\n[[page]]\nid = \"beta\"\ntitle = \"Beta\"\nsources = [\"src/beta.cpp\"]\n");
  wiki_ = repo_.open();
  ASSERT_EQ(error_of(rename_page(*wiki_, "alpha", "gamma", {}, "renamer", task_)), "");
  EXPECT_THAT(log("gamma"), ElementsAre("2 renamed renamer", "1 saved agent"));
  wiki_->prepare();  // the plan no longer has the old id
  EXPECT_EQ(page_history(*wiki_, "alpha").page_id, "gamma") << "a former id leads there";
  EXPECT_EQ(log("beta")[0], "2 relinked renamer");
}

TEST_F(HistoryTest, WhatVersionControlBringsAndTakesIsNoted) {
  ASSERT_TRUE(is_saved(save(WikiRepo::text_about("alpha"))));
  wiki_.reset();
  ossilar::testing::forget_local_state(repo_);
  wiki_ = repo_.open();
  wiki_->prepare();
  adopt_pages(*wiki_);
  EXPECT_THAT(log(), ElementsAre("1 adopted "));
  std::filesystem::remove(repo_.dir / "wiki/pages/alpha.md");
  ossilar::testing::check(repo_, true);
  EXPECT_THAT(log(), ElementsAre("2 removed ", "1 adopted "));
  ASSERT_TRUE(is_saved(restore("1"))) << "and it can be brought back";
  EXPECT_EQ(log()[0], "3 restored restorer");
}

TEST_F(HistoryTest, AFailedStepKeepsRowAndVersionTogether) {
  ASSERT_TRUE(is_saved(save(WikiRepo::text_about("alpha"))));
  for (const std::string failing : {"upsert_wiki_page", "store_chunks", "persist_digests", "commit"}) {
    wiki_.reset();
    const auto paths = wiki_paths(repo_.dir.path(), load_config(repo_.dir / "ossilar.toml"));
    const auto real = store::open_sqlite_store(paths.database());
    wiki_ = repo_.open_with(std::make_unique<HookedStore>(*real, [&](const std::string& operation) {
      if (operation == failing) throw store::StorageError("disk full");
    }));
    const SaveOutcome outcome =
        save_page(*wiki_, {.page_id = "alpha", .content = WikiRepo::text_about("alpha", failing)}, task_, {});
    EXPECT_TRUE(outcome.failure) << failing;
    const auto rows = real->get_wiki_pages(wiki_->branch());
    const auto versions = real->page_versions(wiki_->branch(), "alpha");
    const auto text = real->version_text(wiki_->branch(), "alpha", versions.front().number);
    EXPECT_EQ(_text_hash(*text), utils::string_member(*rows.find("alpha"), "content_hash")) << failing;
    wiki_.reset();
    ossilar::testing::check(repo_, true);  // mends what the failure left
    wiki_ = repo_.open();
    log();
  }
}

class ShortHistoryTest : public HistoryTest {
 protected:
  ShortHistoryTest() : HistoryTest("[history]\nversions = 2\n") {}
};

TEST_F(ShortHistoryTest, TheConfigurationSaysHowManyVersionsAreKept) {
  for (const char* text : {"One.", "Two.", "Three."}) save(WikiRepo::text_about("alpha", text));
  EXPECT_THAT(log(), ElementsAre("3 saved agent", "2 saved agent"));
}

TEST_F(HistoryTest, VersionsAreComparedByNumberAndByName) {
  save(WikiRepo::text_about("alpha", "One."));
  save(WikiRepo::text_about("alpha", "Two."), "agent", "Another title");
  ASSERT_TRUE(is_saved(confirm_page(*wiki_, "alpha", {}, {}, "reader", task_)));
  const auto versions = page_history(*wiki_, "alpha").versions;
  const std::string both = diff("1", "2");
  EXPECT_THAT(both, HasSubstr("\n-# Alpha\n+# Another title\n"));
  EXPECT_THAT(both, HasSubstr("\n-One. [src/alpha.cpp:L1-L3]\n+Two. [src/alpha.cpp:L1-L3]\n"));
  EXPECT_THAT(both, Not(HasSubstr("ossilar:record"))) << "what is generated is nobody's words";
  EXPECT_EQ(diff("1", "3").substr(both.find("\n@@")), both.substr(both.find("\n@@")));
  EXPECT_EQ(diff(versions[2].version.substr(0, 6), versions[1].version), both);
  EXPECT_THAT(diff(), HasSubstr("\n+Two.")) << "from the last that reads otherwise to the page now";
  EXPECT_EQ(diff("2"), "") << "a confirmation changes no word";
  repo_.dir.write("wiki/pages/alpha.md", "# Alpha\n\nBy hand.\n");
  EXPECT_THAT(diff(), HasSubstr("\n+By hand."));

  const std::pair<const char*, const char*> refused[] = {
      {"9", "no kept version '9'"},
      {"abc", "no kept version 'abc'"},  // too short for a name
      {"", "no kept version ''"},
      {"99999999999999999999", "no kept version"},
      {"zzzz\x1b", "no kept version 'zzzz"}};
  for (const auto& [name, says] : refused) EXPECT_THAT(diff(name), HasSubstr(says)) << name;
  const auto unknown = compare_versions(*wiki_, "nope", {}, {});
  EXPECT_THAT(error_of(std::get<Answer>(unknown)), HasSubstr("there is no such page"));
}

TEST_F(HistoryTest, ARestoredTextIsAsTrueAsItIsToday) {
  const std::string text = WikiRepo::text_about("alpha", "One.");
  save(text, "agent", "First title");
  save("Other. [src/alpha.cpp:L9] [src/alpha.cpp:L10]\n", "agent", "Second title");
  std::string source = WikiRepo::ten_lines("alpha");
  source.replace(source.find("int alpha2"), 10, "int moved2");
  repo_.dir.write("src/alpha.cpp", source);
  wiki_->prepare();

  const Answer answer = restore("1", page_history(*wiki_, "alpha").versions[0].version);
  ASSERT_TRUE(is_saved(answer)) << utils::json_text(answer);
  EXPECT_THAT(repo_.page("alpha"), HasSubstr("# First title\n\n" + text));
  EXPECT_THAT(utils::json_text(answer.at("warnings")), HasSubstr("stale: "));
  EXPECT_EQ(state_of(*wiki_, "alpha").condition, PageCondition::stale)
      << "the lines that it cites changed since it was written, whoever saves it";
  EXPECT_EQ(log()[0], "3 restored restorer");

  EXPECT_THAT(error_of(restore("2", "0123456789abcdef")), HasSubstr("0123456789abcdef"));
  ASSERT_EQ(error_of(remove_page(*wiki_, "alpha", {}, "remover", task_)), "");
  EXPECT_THAT(error_of(restore("4")), HasSubstr("no text in version '4'"));
  EXPECT_THAT(error_of(restore("77")), HasSubstr("no kept version"));
}

}  // namespace
}  // namespace ossilar::workers::wiki
