#include "ossilar/workers/wiki/asking/following.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "ossilar/workers/wiki/host/saving.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::is_saved;
using ossilar::testing::save;
using ossilar::testing::state_of;
using ossilar::testing::WikiRepo;
using ::testing::HasSubstr;
using ::testing::Not;

// A page that cites lines 2 to 4 of its source in every place that Markdown has, and lines 8 to 9 once.
constexpr const char* kText =
    "Opening [src/alpha.cpp:L2-L4].\n\n## One [src/alpha.cpp:L2-L4]\n\n- item [src/alpha.cpp:L2-L4]\n\n"
    "| a | b |\n|---|---|\n| [src/alpha.cpp:L2-L4] | x |\n\n```\n[src/alpha.cpp:L2-L4]\n```\n\n"
    "## Two\n\nOther [src/alpha.cpp:L8-L9].\n";

std::string with_line_above(const std::string& source) { return "// a comment\n" + source; }

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

class FollowingTest : public ::testing::Test {
 protected:
  FollowingTest() : wiki_(repo_.open()) { EXPECT_TRUE(is_saved(save(*wiki_, "alpha", kText))); }

  void write_source(const std::string& text) {
    repo_.dir.write("src/alpha.cpp", text);
    wiki_->prepare();
  }
  PageState state() { return state_of(*wiki_, "alpha"); }
  // What was done to the page; nothing if it was left alone.
  SyncedPage sync(bool is_dry_run = false) {
    utils::Task task;
    const auto pages = sync_pages(*wiki_, std::nullopt, is_dry_run, "test", task);
    EXPECT_LE(pages.size(), 1U);
    return pages.empty() ? SyncedPage{} : pages.front();
  }
  Answer confirm(const std::optional<std::string>& section, const std::optional<std::string>& version = {}) {
    utils::Task task;
    return confirm_page(*wiki_, "alpha", section, version, "test", task);
  }
  // The source with the lines that section Two cites changed, and all others one line further down.
  void move_one_and_change_two() {
    write_source(replaced(with_line_above(WikiRepo::ten_lines("alpha")), "int alpha8();", "int other();"));
  }

  const WikiRepo repo_;
  const std::shared_ptr<Wiki> wiki_;
};

TEST_F(FollowingTest, SyncRewritesMovedLinesEverywhereAndNothingElse) {
  write_source(with_line_above(WikiRepo::ten_lines("alpha")));
  EXPECT_EQ(state().condition, PageCondition::moved);
  const std::string before = repo_.page("alpha");
  const SyncedPage shown = sync(true);
  EXPECT_THAT(shown.diff, HasSubstr("+++ b/wiki/pages/alpha.md\n"));
  EXPECT_THAT(shown.diff, HasSubstr("+- item [src/alpha.cpp:L3-L5]"));
  EXPECT_EQ(repo_.page("alpha"), before) << "a dry run writes nothing";

  EXPECT_EQ(sync().followed.size(), 5U);
  std::string expected = replaced(kText, "L2-L4", "L3-L5");
  expected = replaced(replaced(expected, "L8-L9", "L9-L10"), "```\n[src/alpha.cpp:L3-L5]",
                      "```\n[src/alpha.cpp:L2-L4]");
  EXPECT_THAT(repo_.page("alpha"), HasSubstr(expected)) << "code that shows a citation stays";
  EXPECT_EQ(state().condition, PageCondition::drifted) << "nobody has looked at the line that was added";
  EXPECT_TRUE(sync().followed.empty());
}

TEST_F(FollowingTest, SyncLeavesWhatChangedAsStaleAsItWas) {
  move_one_and_change_two();
  const SyncedPage page = sync();
  EXPECT_EQ(page.followed.size(), 4U);
  ASSERT_EQ(page.left.size(), 1U);
  EXPECT_EQ(page.left[0].state, CitationState::changed);
  EXPECT_EQ(state().condition, PageCondition::stale);
  EXPECT_THAT(state().reason, HasSubstr("[src/alpha.cpp:L8-L9] changed"));
  EXPECT_THAT(repo_.page("alpha"), HasSubstr("Other [src/alpha.cpp:L8-L9]."));
}

TEST_F(FollowingTest, AnOldTextSavedAgainStaysStaleAndItsAuthorIsTold) {
  move_one_and_change_two();
  const Answer whole = save(*wiki_, "alpha", kText);
  ASSERT_TRUE(is_saved(whole));
  const std::string warnings = utils::json_text(whole.at("warnings"));
  EXPECT_THAT(warnings, HasSubstr("stale: [src/alpha.cpp:L2-L4] moved to [src/alpha.cpp:L3-L5] in 'One"));
  EXPECT_THAT(warnings, HasSubstr("stale: [src/alpha.cpp:L8-L9] changed"));
  EXPECT_EQ(state().condition, PageCondition::stale);
  ASSERT_TRUE(is_saved(save(*wiki_, "alpha", "Another sentence [src/alpha.cpp:L7].", "Two")));
  EXPECT_EQ(state().condition, PageCondition::moved)
      << "the sentence that was written anew is about today's source";
}

TEST_F(FollowingTest, TheAuthorIsShownWhatChangedAndWhatMoved) {
  const auto changes = [&] {
    return std::get<PageContext>(WikiReader(*wiki_).page_context("alpha")).changes;
  };
  EXPECT_EQ(changes(), "");
  move_one_and_change_two();
  EXPECT_THAT(changes(), HasSubstr("[src/alpha.cpp:L8-L9] changed, now [src/alpha.cpp:L9-L10], in 'Two':\n"
                                   "  > Other [src/alpha.cpp:L8-L9]."));
  EXPECT_THAT(changes(), HasSubstr("-int alpha8();\n+int other();\n int alpha9();\n"));
  EXPECT_THAT(changes(), HasSubstr("[src/alpha.cpp:L2-L4] moved to [src/alpha.cpp:L3-L5]"));
  std::filesystem::remove(repo_.dir / "src/alpha.cpp");
  EXPECT_THAT(changes(), HasSubstr("[src/alpha.cpp:L8-L9] is gone, in 'Two'"));
}

TEST_F(FollowingTest, ASectionsSaveSaysNothingOfTheOthers) {
  move_one_and_change_two();
  const std::string heading = "One [src/alpha.cpp:L2-L4]";
  ASSERT_TRUE(is_saved(save(*wiki_, "alpha", "Anew [src/alpha.cpp:L3-L5].", heading)));
  EXPECT_EQ(state().condition, PageCondition::stale);
  EXPECT_THAT(state().reason, HasSubstr("[src/alpha.cpp:L8-L9] changed"));
}

TEST_F(FollowingTest, ACitationWhoseLinesAreGoneIsNotForgottenByASave) {
  write_source("int alpha1();\nint alpha2();\nint alpha3();\nint alpha4();\n");
  ASSERT_TRUE(is_saved(save(*wiki_, "alpha", std::string(kText) + "\nMore [src/alpha.cpp:L1].\n")));
  EXPECT_EQ(state().condition, PageCondition::stale);
  EXPECT_THAT(state().reason, HasSubstr("[src/alpha.cpp:L8-L9]"));
  const Answer refused = confirm(std::nullopt);
  EXPECT_THAT(utils::json_text(refused), HasSubstr("[src/alpha.cpp:L8-L9]"));
  EXPECT_TRUE(refused.contains("error"));
}

TEST_F(FollowingTest, ConfirmingTakesOneSectionOrAllAnewAndKeepsTheText) {
  move_one_and_change_two();
  const std::string text = repo_.page("alpha").substr(0, repo_.page("alpha").find("<!-- ossilar:generated"));
  EXPECT_TRUE(confirm("Three").contains("sections"));
  EXPECT_TRUE(confirm("Two", "0123456789abcdef").contains("error")) << "another version";
  ASSERT_TRUE(is_saved(confirm("Two")));
  EXPECT_EQ(state().condition, PageCondition::moved) << "section One was not confirmed";
  EXPECT_THAT(repo_.page("alpha"), HasSubstr("{\"confirmed\": \""));
  EXPECT_THAT(repo_.page("alpha"), HasSubstr("\"section\": \"Two\"}"));
  ASSERT_TRUE(is_saved(confirm(std::nullopt)));
  EXPECT_EQ(state().condition, PageCondition::ok);
  EXPECT_THAT(repo_.page("alpha"), ::testing::StartsWith(text));
  EXPECT_THAT(repo_.page("alpha"), Not(HasSubstr("\"section\": \"Two\"}"))) << "the whole page says more";
}

TEST_F(FollowingTest, ARenamedFileIsFollowedAndARenamedSourceIsNoDrift) {
  std::filesystem::rename(repo_.dir / "src/alpha.cpp", repo_.dir / "src/renamed.cpp");
  wiki_->prepare();
  EXPECT_EQ(state().condition, PageCondition::moved);
  EXPECT_EQ(sync().followed.size(), 5U);
  EXPECT_THAT(repo_.page("alpha"), HasSubstr("Other [src/renamed.cpp:L8-L9]."));
}

TEST(Following, CitationsOfNothingDoNotCountAndOverlappingOnesCountOnce) {
  const WikiRepo repo;
  repo.dir.write("src/alpha.cpp", "int a;\n\n}\n  };\nint b;\nint c;\n");
  const auto wiki = repo.open();
  const auto count = [&](const std::string& citations) {
    return utils::json_text(save(*wiki, "alpha", "Text " + citations + ".\n"));
  };
  EXPECT_THAT(count("[src/alpha.cpp:L2-L4] [src/alpha.cpp:L1]"), HasSubstr("\"valid_citations\": 1"));
  EXPECT_THAT(count("[src/alpha.cpp:L1-L6] [src/alpha.cpp:L2-L5]"), HasSubstr("\"valid_citations\": 1"));
  EXPECT_THAT(count("[src/alpha.cpp:L1] [src/alpha.cpp:L5]"), HasSubstr("\"citations\": 2"));
}

}  // namespace
}  // namespace ossilar::workers::wiki
