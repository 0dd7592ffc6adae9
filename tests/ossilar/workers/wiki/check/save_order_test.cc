// The order in which a save reaches the disk, what a failure in it leaves, and what others do in between.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <SQLiteCpp/Database.h>

#include <fcntl.h>
#include <unistd.h>

#include <latch>
#include <thread>

#include "findings.h"
#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/logging.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/host/page_turn.h"
#include "support/hooked_store.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;
using ossilar::testing::check;
using ossilar::testing::findings_in;
using ossilar::testing::HookedStore;
using ossilar::testing::is_saved;
using ossilar::testing::replaced_texts;
using ossilar::testing::save;
using ossilar::testing::StoreHook;
using ossilar::testing::WikiRepo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// A wiki with the page alpha, "Before.", and a second look at its disk from outside.
class SaveOrderTest : public ::testing::Test {
 protected:
  SaveOrderTest() {
    EXPECT_TRUE(is_saved(save(*repo_.open(), "alpha", WikiRepo::text_about("alpha", "Before."))));
    outside_ = repo_.open();
    utils::set_log_sink([this](const utils::LogRecord& record) { log_.push_back(record.message()); });
  }
  ~SaveOrderTest() override { utils::set_log_sink({}); }

  // The wiki with `hook` before each write of a save.
  std::unique_ptr<Wiki> hooked(StoreHook hook) const {
    return repo_.open_with(std::make_unique<HookedStore>(*real_, std::move(hook)));
  }

  bool page_is_new() const { return repo_.page("alpha").find("After.") != std::string::npos; }
  bool row_is_new() const {
    const store::StoredRows rows = outside_->stored_pages();
    return utils::string_member(*rows.find("alpha"), "content_hash") == hash_of_page();
  }
  bool manifest_is_new() const {
    return page_is_new() && outside_->lists().read_all().describes("alpha", hash_of_page());
  }
  std::string hash_of_page() const { return utils::sha256_hex(repo_.page("alpha")); }
  std::string warnings_of(const Answer& answer) const {
    return answer.contains("warnings") ? answer.at("warnings").dump() : answer.dump();
  }
  // Stores "After." while the lists cannot be written, and lets them be written again.
  void save_without_publication() const {
    const fs::path index = repo_.dir / "wiki/index.md";
    const std::string text = repo_.dir.read("wiki/index.md");
    fs::remove(index);
    fs::create_directory(index);
    EXPECT_TRUE(is_saved(save(*repo_.open(), "alpha", WikiRepo::text_about("alpha", "After."))));
    fs::remove(index);
    repo_.dir.write("wiki/index.md", text);
  }
  void edit_by_hand(const std::string& text) const {
    std::string page = repo_.page("alpha");
    page.insert(page.find("## Two"), text + "\n\n");
    repo_.dir.write("wiki/pages/alpha.md", page);
  }
  std::string findings() const { return findings_in(repo_); }
  std::vector<std::string> kept() const { return replaced_texts(repo_); }

  const WikiRepo repo_{"[wiki]\nmin_citations_per_page = 0\n"};
  const std::unique_ptr<store::WikiStore> real_ = store::open_sqlite_store(repo_.dir / ".ossilar/index.db");
  std::unique_ptr<Wiki> outside_;
  std::vector<std::string> log_;
};

const std::string kAfter = WikiRepo::text_about("alpha", "After.");

TEST_F(SaveOrderTest, FileThenRowsThenListsThenState) {
  std::vector<std::string> seen;
  const auto wiki = hooked([&](const std::string& operation) {
    if (operation == "get_wiki_pages") return;
    seen.push_back(operation + (page_is_new() ? " page" : "") + (row_is_new() ? " row" : "") +
                   (manifest_is_new() ? " manifest" : ""));
  });
  ASSERT_TRUE(is_saved(save(*wiki, "alpha", kAfter)));
  EXPECT_THAT(seen, ElementsAre("upsert_wiki_page page", "store_chunks page", "persist_digests page",
                                "mark_stale page", "commit page", "upsert_wiki_state page row manifest"));
}

TEST_F(SaveOrderTest, AFailedWriteLeavesNoListAheadOfTheRowsAndIsFoundByCheck) {
  for (const char* const point :
       {"upsert_wiki_page", "store_chunks", "persist_digests", "mark_stale", "commit"}) {
    SCOPED_TRACE(point);
    ASSERT_TRUE(is_saved(save(*repo_.open(), "alpha", WikiRepo::text_about("alpha", "Before."))));
    const auto wiki = hooked([&](const std::string& operation) {
      if (operation == point) throw store::StorageError("disk full");
    });
    EXPECT_THROW(save(*wiki, "alpha", kAfter), store::StorageError);
    EXPECT_TRUE(page_is_new()) << "writes already made stay";
    EXPECT_FALSE(manifest_is_new());
    EXPECT_EQ(row_is_new(), point != std::string("upsert_wiki_page") && point != std::string("commit"));
    EXPECT_EQ(adopt_arrivals(*repo_.open(), WhenBusy::wait).adopted, 0U);
    EXPECT_THAT(findings(),
                HasSubstr(row_is_new() ? "manifest wiki/manifest.json" : "newer-page wiki/pages/alpha.md"));
    EXPECT_TRUE(check(repo_, true).is_clean());
  }
}

TEST_F(SaveOrderTest, AFailedIndexSkipsTheStateAndIsLogged) {
  const std::string last = WikiReader(*outside_).status().last_write->last_built_at;
  bool has_state = false;
  const auto wiki =
      hooked([&](const std::string& operation) { has_state |= operation == "upsert_wiki_state"; });
  fs::remove(repo_.dir / "wiki/index.md");
  fs::create_directory(repo_.dir / "wiki/index.md");
  EXPECT_TRUE(is_saved(save(*wiki, "alpha", kAfter)));
  EXPECT_TRUE(row_is_new());
  EXPECT_FALSE(has_state);
  EXPECT_THAT(log_, ElementsAre("post-save index/state refresh failed"));
}

// Once the rows are committed, no later failure makes the save fail.
TEST_F(SaveOrderTest, AFailureAfterTheCommitIsLoggedAndTheSaveSucceeds) {
  for (const char* const point : {"get_wiki_pages", "upsert_wiki_state"}) {
    SCOPED_TRACE(point);
    log_.clear();
    bool is_committed = false;
    const auto wiki = hooked([&](const std::string& operation) {
      if (is_committed && operation == point) throw store::StorageError("disk full");
      is_committed |= operation == "commit";
    });
    EXPECT_TRUE(
        is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha", std::string("After. ") + point))));
    EXPECT_TRUE(row_is_new());
    EXPECT_EQ(manifest_is_new(), point == std::string("upsert_wiki_state"));
    EXPECT_THAT(log_, ElementsAre("post-save index/state refresh failed"));
  }
}

// The outdated manifest lists "Before.", and a save of that very text is cut short.
TEST_F(SaveOrderTest, AnOutdatedManifestOfOursAdoptsNoPage) {
  save_without_publication();
  const auto wiki = hooked([](const std::string& operation) {
    if (operation == "upsert_wiki_page") throw store::StorageError("disk full");
  });
  EXPECT_THROW(save(*wiki, "alpha", WikiRepo::text_about("alpha", "Before.")), store::StorageError);
  EXPECT_EQ(adopt_arrivals(*repo_.open(), WhenBusy::wait).adopted, 0U);
  EXPECT_THAT(findings(), HasSubstr("newer-page wiki/pages/alpha.md"));
}

TEST_F(SaveOrderTest, AnOutdatedManifestIsCorrectedByTheNextSaveOfAnyPage) {
  save_without_publication();
  const auto wiki = repo_.open();
  adopt_arrivals(*wiki, WhenBusy::wait);
  EXPECT_TRUE(is_saved(save(*wiki, "beta", WikiRepo::text_about("beta"))));
  EXPECT_EQ(findings(), "");
}

// The rolled back step must not stay in the snapshot that the next save compares with.
TEST_F(SaveOrderTest, ADigestIsStoredByTheNextSaveWhenItsStaleMarksFailed) {
  const auto wiki = repo_.open();
  ASSERT_TRUE(is_saved(save(*wiki, "overview", "All [src/alpha.cpp:L1].\n\n## X\n\nabout\n")));
  SQLite::Database database((repo_.dir / ".ossilar/index.db").string(), SQLite::OPEN_READWRITE);
  database.exec("CREATE TRIGGER refuse BEFORE INSERT ON stale_marks BEGIN SELECT RAISE(ABORT, 'no'); END");
  EXPECT_THROW(save(*wiki, "alpha", kAfter), store::StorageError);
  database.exec("DROP TRIGGER refuse");
  EXPECT_TRUE(is_saved(save(*wiki, "alpha", kAfter)));
  EXPECT_EQ(findings(), "stale wiki/pages/overview.md");
}

// A draft of beta reads the rows and is held. Another process saves gamma, and alpha's commit reads the rows
// again. The draft then goes on with its old rows, and gamma's digest must survive.
TEST(SideBySide, ADraftDoesNotOverwriteDigestsThatACommitHasRead) {
  const WikiRepo repo("[[page]]\nid = \"gamma\"\ntype = \"module\"\nsources = [\"src/beta.cpp\"]\n");
  const auto real = store::open_sqlite_store(repo.dir / ".ossilar/index.db");
  std::latch drafting(1);
  std::latch reread(1);
  std::latch drafted(1);
  std::thread::id drafter;
  int reads = 0;
  std::unique_ptr<Wiki> wiki =
      repo.open_with(std::make_unique<HookedStore>(*real, [&](const std::string& operation) {
        const bool is_drafter = std::this_thread::get_id() == drafter;
        if (operation == "get_wiki_pages" && is_drafter && ++reads == 1) {
          drafting.count_down();
          reread.wait();
        }
        if (operation == "upsert_wiki_page" && !is_drafter) {
          reread.count_down();
          drafted.wait();
        }
      }));
  wiki->prepare();
  std::thread draft;
  std::latch started(1);
  draft = std::thread([&] {
    drafter = std::this_thread::get_id();
    started.count_down();
    bool has_told = false;
    utils::Task task([&](std::string_view step) {
      if (step == "checking citations" && !std::exchange(has_told, true)) drafted.count_down();
    });
    EXPECT_TRUE(is_saved(WikiGenerator(*wiki, task).save_agent_page("beta", WikiRepo::text_about("beta"))));
  });
  started.wait();
  drafting.wait();
  EXPECT_TRUE(is_saved(save(*repo.open(), "gamma", WikiRepo::text_about("beta"))));
  EXPECT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha"))));
  draft.join();
  const store::PageDigests digests = repo.open()->store().load_digests("default");
  for (const char* page : {"alpha", "beta", "gamma"}) EXPECT_NE(digests.find(page), nullptr) << page;
}

TEST_F(SaveOrderTest, OnlySaversOfOnePageTakeTurns) {
  const fs::path turns = outside_->paths().turns();
  const utils::Task task;
  const PageTurn held(turns, "alpha", std::chrono::hours(1), task);
  const auto waits = [&](const std::string& page) {
    utils::Task impatient;
    impatient.cancel();
    try {
      PageTurn(turns, page, std::chrono::hours(1), impatient);
      return false;
    } catch (const utils::Cancelled&) {
      return true;
    }
  };
  EXPECT_TRUE(waits("alpha"));
  for (int i = 0; i < 1000; ++i) EXPECT_FALSE(waits("page" + std::to_string(i))) << i;
  PageTurn(turns, "alpha", std::chrono::milliseconds(0), task);  // patience ends, and the save goes on
  EXPECT_EQ(ossilar::testing::save_page(*outside_, {.page_id = "alpha", .content = " "}).answer,
            (Answer{{"error", "content is required"}}));
}

TEST_F(SaveOrderTest, ReplacingASavedTextKeepsNoCopy) {
  for (const char* text : {"One.", "Two.", "One.", "Two."}) {
    const Answer answer = save(*outside_, "alpha", WikiRepo::text_about("alpha", text));
    EXPECT_THAT(warnings_of(answer), Not(HasSubstr("hand-edit")));
  }
  EXPECT_THAT(kept(), IsEmpty());
  EXPECT_THAT(log_, IsEmpty());
}

// The file that a save replaced is put away before another save may replace one.
TEST_F(SaveOrderTest, AManualEditThatCannotBePutAwayIsNotOverwritten) {
  edit_by_hand("Precious.");
  repo_.dir.write(".ossilar/replaced", "a file in the way");
  Answer drafted = preview_page(*outside_, {.page_id = "alpha", .content = kAfter});
  drafted.erase("dry_run");
  drafted["saved"] = true;
  EXPECT_EQ(save(*outside_, "alpha", kAfter), drafted) << "the answer is the draft's, whatever comes after";
  EXPECT_THAT(log_, ElementsAre(HasSubstr("cannot put away")));
  EXPECT_THROW(save(*outside_, "alpha", WikiRepo::text_about("alpha", "Later.")), utils::IoError);
  EXPECT_TRUE(page_is_new()) << "nothing was written";
  fs::remove(repo_.dir / ".ossilar/replaced");
  EXPECT_TRUE(is_saved(save(*outside_, "alpha", WikiRepo::text_about("alpha", "Later."))));
  EXPECT_THAT(kept(), ElementsAre(HasSubstr("Precious.")));
}

TEST_F(SaveOrderTest, ACancelledSaveThatWaitsForItsTurnKeepsItsText) {
  const utils::Task task;
  const PageTurn held(outside_->paths().turns(), "alpha", std::chrono::hours(1), task);
  utils::Task cancelled;
  cancelled.cancel();
  EXPECT_THROW(
      ossilar::workers::wiki::save_page(*outside_, {.page_id = "alpha", .content = kAfter}, cancelled),
      utils::Cancelled);
  EXPECT_FALSE(fs::is_empty(repo_.dir / ".ossilar/drafts"));
}

TEST_F(SaveOrderTest, AManualEditIsReportedByTheDraftAndKeptByTheCommit) {
  edit_by_hand("By hand.");
  const std::string edited = repo_.page("alpha");
  const Answer previewed = preview_page(*outside_, {.page_id = "alpha", .content = kAfter});
  EXPECT_THAT(kept(), IsEmpty()) << "a draft writes nothing";
  const Answer answer = save(*outside_, "alpha", kAfter);
  EXPECT_EQ(answer.at("warnings"), previewed.at("warnings")) << "the commit adds nothing";
  EXPECT_THAT(answer.at("warnings").back().get<std::string>(), HasSubstr("hand-edit: "));
  EXPECT_THAT(kept(), ElementsAre(edited));
}

TEST_F(SaveOrderTest, AManualEditBetweenDraftAndCommitIsDraftedAgain) {
  int drafts = 0;
  utils::Task task([&](std::string_view step) {
    drafts += step == "planning" ? 1 : 0;
    if (step == "waiting for the write lock" && drafts == 1) edit_by_hand("In between.");
  });
  const Answer answer =
      WikiGenerator(*outside_, task).save_agent_page("alpha", "Other [src/alpha.cpp:L5].", "Two");
  EXPECT_EQ(drafts, 2);
  EXPECT_THAT(warnings_of(answer), HasSubstr("hand-edit: "));
  EXPECT_THAT(repo_.page("alpha"), HasSubstr("In between."));
  EXPECT_THAT(log_, ElementsAre("page 'alpha' changed while its save was drafted; drafting again"));
}

// The commit has checked the file already; swapping the files brings the later edit to light.
TEST_F(SaveOrderTest, AManualEditDuringTheCommitIsKeptAndLogged) {
  bool has_looked = false;
  const auto wiki = hooked([&](const std::string& operation) {
    if (operation == "get_wiki_pages" && has_looked) edit_by_hand("In the last moment.");
    has_looked = false;
  });
  utils::Task task({}, [&](std::string_view stage) { has_looked = stage == "holding the write lock"; });
  ASSERT_TRUE(is_saved(WikiGenerator(*wiki, task).save_agent_page("alpha", kAfter)));
  EXPECT_THAT(kept(), ElementsAre(HasSubstr("In the last moment.")));
  EXPECT_THAT(log_, ElementsAre(HasSubstr("edited by hand while it was saved")));
  EXPECT_THAT(findings(), IsEmpty());
}

// An editor that has the replaced file open goes on writing into the copy that is kept.
TEST_F(SaveOrderTest, WhatAnEditorWritesAfterTheReplacementIsKept) {
  const auto page = (repo_.dir / "wiki/pages/alpha.md").string();
  const utils::UniqueFd editor(open(page.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  ASSERT_TRUE(is_saved(save(*outside_, "alpha", kAfter)));
  ASSERT_EQ(write(editor.get(), "Late.\n", 6), 6);
  EXPECT_THAT(kept(), ElementsAre(::testing::EndsWith("Late.\n")));
}

TEST_F(SaveOrderTest, ASaveRefusedUnderTheLockLeavesNoCopy) {
  edit_by_hand("By hand.");
  bool has_taken = false;
  utils::Task task([&](std::string_view step) {
    if (step != "waiting for the write lock" || std::exchange(has_taken, true)) return;
    EXPECT_TRUE(is_saved(save(*repo_.open(), "beta", WikiRepo::text_about("beta"), {}, "Taken")));
  });
  const Answer answer = WikiGenerator(*outside_, task).save_agent_page("alpha", kAfter, {}, "Taken");
  EXPECT_THAT(utils::string_member(answer, "error"), HasSubstr("is the title of page 'beta'"));
  EXPECT_THAT(kept(), IsEmpty());
  EXPECT_THAT(repo_.page("alpha"), HasSubstr("By hand."));
}

TEST_F(SaveOrderTest, AManualEditAdoptedByARepairIsKeptWhenASaveReplacesIt) {
  edit_by_hand("By hand.");
  const std::string edited = repo_.page("alpha");
  EXPECT_TRUE(check(repo_, true).is_clean());
  EXPECT_THAT(warnings_of(save(*outside_, "alpha", kAfter)), HasSubstr("hand-edit: "));
  EXPECT_THAT(kept(), ::testing::Contains(edited));
}

TEST_F(SaveOrderTest, ARepairPutsAwayTheFormerFileOfAKilledSave) {
  const std::string page = repo_.page("alpha");
  const fs::path former = utils::former_file(repo_.dir / "wiki/pages/alpha.md");
  const auto leave = [&](const std::string& text) {
    repo_.dir.write(former.lexically_relative(repo_.dir.path()).string(), text);
    EXPECT_THAT(findings(), HasSubstr("leftover wiki/pages/.ossilar-"));
    EXPECT_TRUE(check(repo_, true).is_clean());
    EXPECT_FALSE(fs::exists(former));
  };
  leave(page);
  EXPECT_THAT(kept(), IsEmpty()) << "the row knows it";
  leave(page + "By hand.\n");
  EXPECT_THAT(kept(), ElementsAre(page + "By hand.\n"));
}

TEST_F(SaveOrderTest, ASectionIsReadThroughLinksThatStayInside) {
  const auto sections = [&] {
    return preview_page(*outside_,
                        {.page_id = "alpha", .content = "New [src/alpha.cpp:L5].", .section = "Two"});
  };
  const fs::path page = repo_.dir / "wiki/pages/alpha.md";
  repo_.dir.write("wiki/pages/elsewhere.md", repo_.page("alpha"));
  for (const fs::path& target : {fs::path("elsewhere.md"), repo_.dir / "wiki/pages/elsewhere.md"}) {
    fs::remove(page);
    fs::create_symlink(target, page);
    EXPECT_EQ(sections().at("dry_run"), true) << target;
  }
  fs::remove(page);
  fs::create_symlink("alpha.md", page);
  EXPECT_EQ(utils::string_member(sections(), "error"),
            "page 'alpha' has no saved text to replace a section of");
  fs::remove(page);
  repo_.dir.write("wiki/pages/alpha.md", "\xEF\xBB\xBF## Two\n\nx\n");
  EXPECT_THAT(utils::string_member(sections(), "error"), HasSubstr("has no section 'Two'"))
      << "U+FEFF is text";
}

}  // namespace
}  // namespace ossilar::workers::wiki
