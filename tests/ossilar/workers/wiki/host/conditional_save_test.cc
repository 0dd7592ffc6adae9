// Saves onto a version, refused texts, and cancelled work.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "ossilar/store/file_lock.h"
#include "ossilar/utils/task.h"
#include "support/threads.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ::ossilar::testing::error_of;
using ::ossilar::testing::is_saved;
using ::ossilar::testing::save_page;
using ::ossilar::testing::WikiRepo;
using ::testing::HasSubstr;

std::string version_in(const Answer& answer) { return utils::string_member(answer, "version"); }

class ConditionalSaves : public ::testing::Test {
 protected:
  Answer save(const std::string& if_version, const std::string& one = "First.") {
    utils::Task task;
    return save(if_version, one, task);
  }
  Answer save(const std::string& if_version, const std::string& one, utils::Task& task) {
    return wiki::save_page(
               *wiki_,
               {.page_id = "alpha", .content = WikiRepo::text_about("alpha", one), .if_version = if_version},
               task)
        .answer;
  }
  std::string version() { return std::get<StoredPage>(WikiReader(*wiki_).read_page("alpha")).version; }

  WikiRepo repo_;
  std::unique_ptr<Wiki> wiki_ = repo_.open();
};

TEST_F(ConditionalSaves, ApplyToTheNamedVersionAndReturnTheNext) {
  EXPECT_THAT(error_of(save("0123456789abcdef")), HasSubstr("is not stored"));
  const Answer first = save("new");
  ASSERT_TRUE(first.contains("saved")) << first;
  EXPECT_EQ(version_in(first), version());
  EXPECT_THAT(error_of(save("new")), HasSubstr("already exists"));

  const Answer second = save(version_in(first), "Second.");
  ASSERT_TRUE(second.contains("saved")) << second;
  const Answer late = save(version_in(first), "Late.");
  EXPECT_EQ(version_in(late), version_in(second));
  EXPECT_THAT(utils::string_member(late, "diff"), HasSubstr("-First. [src/alpha.cpp:L1-L3]\n+Second. [src"));
  EXPECT_THAT(repo_.page("alpha"), HasSubstr("Second."));

  wiki_ = repo_.open();  // which has handed no text out
  EXPECT_THAT(utils::string_member(save(version_in(first), "Late."), "diff"), HasSubstr("+++ your text"));
}

TEST_F(ConditionalSaves, AreRefusedInTextOntoAPageThatIsNone) {
  const std::string first = version_in(save("new"));
  repo_.dir.write("wiki/pages/alpha.md", "caf\xe9\n");
  const Answer refused = save(first);
  EXPECT_THAT(error_of(refused), HasSubstr("changed since version"));
  EXPECT_THAT(utils::json_text(refused), HasSubstr("caf\xef\xbf\xbd"));
}

TEST_F(ConditionalSaves, AreRefusedAfterAManualEdit) {
  const std::string read = version_in(save("new"));
  repo_.dir.write("wiki/pages/alpha.md", repo_.page("alpha") + "By hand.\n");
  const Answer refused = save(read, "Mine.");
  EXPECT_THAT(utils::string_member(refused, "diff"), HasSubstr("+By hand."));
  EXPECT_TRUE(save(version_in(refused), "Mine.").contains("saved")) << "who has seen it may replace it";
}

// The save checks the version before each of these steps and must check it again after the edit.
TEST_F(ConditionalSaves, AreRefusedAfterAManualEditDuringTheSave) {
  save("new");
  for (const std::string at : {"planning", "waiting for the write lock"}) {
    bool has_edited = false;
    utils::Task task([&](std::string_view step) {
      if (step != at || std::exchange(has_edited, true)) return;
      repo_.dir.write("wiki/pages/alpha.md", repo_.page("alpha") + "By hand.\n");
    });
    EXPECT_THAT(utils::string_member(save(version(), "Mine.", task), "diff"), HasSubstr("+By hand.")) << at;
  }
}

TEST_F(ConditionalSaves, KeepTheTextOfASaveThatFails) {
  std::filesystem::remove_all(repo_.dir / "wiki/pages");
  repo_.dir.write("wiki/pages", "a file where a folder must be");
  const auto outcome = save_page(*wiki_, {.page_id = "alpha", .content = WikiRepo::text_about("alpha")});
  EXPECT_TRUE(outcome.failure);
  EXPECT_EQ(wiki_->kept_drafts().read(outcome.kept), WikiRepo::text_about("alpha"));
}

TEST_F(ConditionalSaves, OfManyOntoOneVersionOneSucceeds) {
  const std::string read = version_in(save("new"));
  const auto other = repo_.open();
  std::atomic<int> saved = 0;
  std::atomic<int> refused = 0;
  ossilar::testing::in_threads(8, [&](std::size_t i) {
    const std::string text = WikiRepo::text_about("alpha", "By " + std::to_string(i));
    const Answer answer =
        save_page(i % 2 == 0 ? *wiki_ : *other, {.page_id = "alpha", .content = text, .if_version = read})
            .answer;
    if (is_saved(answer)) ++saved;
    if (answer.contains("diff")) ++refused;
  });
  EXPECT_EQ(saved, 1);
  EXPECT_EQ(refused, 7);
}

TEST_F(ConditionalSaves, AreForPlannedPagesOnly) {
  const auto outcome = save_page(*wiki_, {.page_id = "../alpha", .content = "text", .if_version = "new"});
  EXPECT_THAT(error_of(outcome.answer), HasSubstr("not in the plan"));
  EXPECT_EQ(outcome.kept.find('/'), std::string::npos) << outcome.kept;
  EXPECT_EQ(repo_.dir.read(".ossilar/drafts/" + outcome.kept), "text");
}

TEST_F(ConditionalSaves, KeepTheNewestFiftyRefusedTexts) {
  std::string kept;
  for (int i = 0; i < 60; ++i)
    kept = save_page(*wiki_, {.page_id = "alpha", .content = "No source " + std::to_string(i)}).kept;
  const std::filesystem::directory_iterator drafts(repo_.dir / ".ossilar/drafts");
  EXPECT_EQ(std::distance(begin(drafts), end(drafts)), 50);
  EXPECT_EQ(wiki_->kept_drafts().read(kept), "No source 59");
  EXPECT_EQ(save_page(*wiki_, {.page_id = "alpha", .content = " "}).kept, "") << "there is nothing to keep";
}

// Cancels a save at its first step, at its second, and so on until the cancellation comes too late.
TEST(CancelledSaves, EndBeforeTheCommitOrNotAtAll) {
  for (int at = 1;; ++at) {
    const WikiRepo repo;
    const auto wiki = repo.open();
    int step = 0;
    utils::Task* self = nullptr;
    utils::Task task([&](std::string_view) {
      if (++step == at) self->cancel();
    });
    self = &task;
    bool ended = false;
    try {
      WikiGenerator(*wiki, task).save_agent_page("alpha", WikiRepo::text_about("alpha"));
    } catch (const utils::Cancelled&) {
      ended = true;
    }
    EXPECT_EQ(std::filesystem::exists(repo.dir / "wiki/pages/alpha.md"), task.has_been_shielded()) << at;
    EXPECT_NE(ended, task.has_been_shielded()) << at;
    store::FileLock lock({.path = repo.dir / ".ossilar/write.lock", .holder = "the test"});
    EXPECT_NO_THROW(lock.acquire(false)) << at;
    if (step < at) {
      EXPECT_GE(step, 5) << "steps of a draft";
      break;
    }
  }
}

}  // namespace
}  // namespace ossilar::workers::wiki
