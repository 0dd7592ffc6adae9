// A page gets another id: what follows it, what is refused, and what a renaming that is cut short leaves.
#include "ossilar/workers/wiki/check/renaming.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <utility>

#include "findings.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/check/removal.h"
#include "ossilar/workers/wiki/pages/page_record.h"
#include "support/hooked_store.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;
using ossilar::testing::check;
using ossilar::testing::error_of;
using ossilar::testing::findings_in;
using ossilar::testing::forget_local_state;
using ossilar::testing::HookedStore;
using ossilar::testing::is_saved;
using ossilar::testing::names_of;
using ossilar::testing::pages_about;
using ossilar::testing::replace_in_file;
using ossilar::testing::replaced_texts;
using ossilar::testing::save;
using ossilar::testing::state_of;
using ossilar::testing::WikiRepo;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

std::string entry(const std::string& id, const std::string& title, const std::string& type,
                  const std::string& source) {
  return "[[page]]\nid = \"" + id + "\"\ntitle = \"" + title + "\"\ntype = \"" + type +
         "\"\nsources = [\"src/" + source + ".cpp\"]\n";
}

// The topic alpha, which the module beta links to and which links to it. It is orphaned: the configuration
// has the module core/gamma in its place, which is missing.
class RenamingTest : public ::testing::Test {
 protected:
  RenamingTest() {
    configure(entry("alpha", "Alpha", "topic", "alpha") + entry("beta", "Beta", "module", "beta"));
    const auto wiki = repo_.open();
    EXPECT_TRUE(
        is_saved(save(*wiki, "beta", WikiRepo::text_about("beta", "Of [Alpha] and [the old name]."))));
    EXPECT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha"), {}, "The old name")));
    EXPECT_TRUE(is_saved(save(*wiki, "alpha", WikiRepo::text_about("alpha", "Of [Beta]."), {}, "Alpha")));
    EXPECT_TRUE(
        is_saved(save(*wiki, "beta", WikiRepo::text_about("beta", "Of [Alpha] and [the old name]."))));
    configure(entry("core/gamma", "Gamma", "module", "alpha") + entry("beta", "Beta", "module", "beta"));
    wiki_ = repo_.open();
  }

  void configure(const std::string& entries) const { repo_.dir.write("ossilar.toml", entries); }
  Answer rename(const std::string& from, const std::string& to,
                const std::optional<std::string>& version = {}) {
    utils::Task task;
    return rename_page(*wiki_, from, to, version, "test", task);
  }
  bool has_page(const std::string& id) const { return fs::exists(repo_.dir / ("wiki/pages/" + id + ".md")); }
  std::string row_text(const std::string& id, const char* key) const {
    const auto rows = wiki_->stored_pages();
    const Map* row = rows.find(id);
    return row == nullptr ? "no row" : utils::string_member(*row, key);
  }
  // The page is under its new id, whole, and under no other.
  void expect_renamed() const {
    EXPECT_FALSE(has_page("alpha"));
    EXPECT_EQ(row_text("alpha", "title"), "no row");
    EXPECT_THAT(repo_.page("core/gamma"), HasSubstr("\n\n" + WikiRepo::text_about("alpha", "Of [Beta].")));
    EXPECT_THAT(repo_.page("beta"), HasSubstr("[Alpha]: core/gamma.md\n[the old name]: core/gamma.md\n"));
    EXPECT_EQ(WikiReader(*wiki_).standing_id("alpha"), "core/gamma");
    EXPECT_EQ(findings_in(repo_), "");
    EXPECT_THAT(repo_.dir.read("wiki/manifest.json"), Not(HasSubstr("pages/alpha.md")));
  }

  const WikiRepo repo_;
  std::shared_ptr<Wiki> wiki_;
};

TEST_F(RenamingTest, ThePageLivesOnUnderItsNewId) {
  const std::string cited = row_text("alpha", "citations");
  const std::string hashes = row_text("alpha", "source_hashes");
  const std::string old_file = repo_.page("alpha");
  repo_.dir.write("src/alpha.cpp", "// one line more\n" + WikiRepo::ten_lines("alpha"));
  wiki_->store().mark_stale(wiki_->branch(), {{"alpha", "a reason of its own"}});
  ASSERT_EQ(state_of(*wiki_, "alpha").condition, PageCondition::orphaned);

  const Answer answer = rename("alpha", "core/gamma");
  ASSERT_EQ(error_of(answer), "");
  EXPECT_EQ(answer.at("page_id"), "core/gamma");
  EXPECT_EQ(answer.at("version"), version_of(repo_.page("core/gamma")));
  EXPECT_EQ(answer.at("relinked"), Map::array({"beta"}));
  EXPECT_THAT(answer.at("warnings"), IsEmpty());
  EXPECT_EQ(repo_.dir.read(utils::string_member(answer, "kept")), old_file);

  EXPECT_EQ(row_text("core/gamma", "citations"), cited) << "what it cites is as it was when it was written";
  EXPECT_EQ(row_text("core/gamma", "source_hashes"), hashes);
  const PageState state = state_of(*wiki_, "core/gamma");
  EXPECT_EQ(state.condition, PageCondition::stale);
  EXPECT_THAT(state.reason, HasSubstr("a reason of its own"));
  EXPECT_EQ(state.doubts.size(), 2U) << "its citations moved by a line, and it is known";
  EXPECT_EQ(state_of(*wiki_, "beta").condition, PageCondition::ok) << "a link is no words";
  EXPECT_THAT(names_of(check(repo_).findings), StartsWith("stale "));
  repo_.dir.write("src/alpha.cpp", WikiRepo::ten_lines("alpha"));
  ASSERT_TRUE(is_saved(save(*wiki_, "core/gamma", WikiRepo::text_about("alpha", "Of [Beta]."))));
  expect_renamed();

  EXPECT_THAT(pages_about(*wiki_, "alpha"), AllOf(Contains("core/gamma"), Not(Contains("alpha"))));
  EXPECT_EQ(error_of(rename("alpha", "core/gamma")), "") << "an agent that lost the answer asks again";
  EXPECT_EQ(error_of(rename("core/gamma", "core/gamma")), "");
}

TEST_F(RenamingTest, ATitleThatNobodyChoseIsThePlannedOneAndAChosenOneStays) {
  ASSERT_EQ(error_of(rename("alpha", "core/gamma")), "");
  EXPECT_THAT(repo_.page("core/gamma"), StartsWith("# Alpha\n")) << "an agent chose it";
  configure(entry("delta", "Delta", "topic", "alpha") + entry("zeta", "Zeta", "topic", "beta"));
  wiki_ = repo_.open();
  ASSERT_EQ(error_of(rename("beta", "zeta")), "");
  EXPECT_THAT(repo_.page("zeta"), StartsWith("# Zeta\n"));
  EXPECT_THAT(record_of(repo_.page("zeta"))->former_titles, ElementsAre("Beta"));
  EXPECT_THAT(repo_.page("core/gamma"), HasSubstr("[Beta]: ../zeta.md\n"));
  ASSERT_TRUE(is_saved(save(*wiki_, "zeta", WikiRepo::text_about("beta", "Of [Alpha]."))));
  EXPECT_THAT(repo_.page("zeta"), HasSubstr("[Alpha]: core/gamma.md\n"));
}

TEST_F(RenamingTest, FormerIdsComeToClonesAndStayThroughSavesAndRenamings) {
  ASSERT_EQ(error_of(rename("alpha", "core/gamma")), "");
  ASSERT_TRUE(is_saved(save(*wiki_, "core/gamma", WikiRepo::text_about("alpha", "Of [Beta]."))));
  configure(entry("delta", "Delta", "module", "alpha") + entry("beta", "Beta", "module", "beta"));
  wiki_ = repo_.open();
  ASSERT_EQ(error_of(rename("core/gamma", "delta")), "");
  EXPECT_FALSE(fs::exists(repo_.dir / "wiki/pages/core")) << "an empty folder goes";
  EXPECT_THAT(record_of(repo_.page("delta"))->former_ids, ElementsAre("alpha", "core/gamma"));
  const auto known = [&] {
    const WikiReader reader(*wiki_);
    EXPECT_EQ(reader.standing_id("alpha"), "delta");
    EXPECT_EQ(reader.standing_id("core/gamma"), "delta");
    EXPECT_EQ(reader.standing_id("nobody"), std::nullopt);
    EXPECT_EQ(std::get<StoredPage>(reader.read_page("alpha")).page_id, "delta");
    EXPECT_THAT(error_of(std::get<Answer>(reader.page_context("alpha"))), HasSubstr("the id 'delta' now"));
    EXPECT_EQ(state_of(*wiki_, "delta").condition, PageCondition::ok);
  };
  known();
  wiki_.reset();
  forget_local_state(repo_);
  wiki_ = repo_.open();
  EXPECT_EQ(adopt_pages(*wiki_).adopted, 2U);
  known();
  // A page that has the id comes first.
  configure(entry("delta", "Delta", "module", "alpha") + entry("alpha", "New", "module", "beta"));
  wiki_ = repo_.open();
  EXPECT_EQ(WikiReader(*wiki_).standing_id("alpha"), "alpha");
}

// Another checkout, which has the wiki of before, gets what version control brings.
TEST_F(RenamingTest, ARenamingThatIsPulledIsTakenOver) {
  const WikiRepo other;
  fs::remove_all(other.dir / "wiki");
  fs::copy(repo_.dir.path(), other.dir.path(),
           fs::copy_options::recursive | fs::copy_options::overwrite_existing);
  ASSERT_EQ(error_of(rename("alpha", "core/gamma")), "");
  fs::remove_all(other.dir / "wiki");
  fs::copy(repo_.dir / "wiki", other.dir / "wiki", fs::copy_options::recursive);
  const auto there = other.open();
  const AdoptionReport report = adopt_arrivals(*there, WhenBusy::wait);
  EXPECT_EQ(report.adopted, 2U) << "the page, and the one whose link followed";
  EXPECT_EQ(report.forgotten, 1U);
  EXPECT_EQ(WikiReader(*there).standing_id("alpha"), "core/gamma");
  EXPECT_EQ(state_of(*there, "core/gamma").condition, PageCondition::ok);
  EXPECT_EQ(findings_in(other), "");
}

TEST_F(RenamingTest, RefusalsSayWhyAndChangeNothing) {
  repo_.dir.write("wiki/pages/taken.md", "# Somebody's\n");
  configure(entry("core/gamma", "Gamma", "module", "alpha") + entry("taken", "T", "topic", "beta") +
            entry("beta", "Beta", "module", "beta"));
  wiki_ = repo_.open();
  const std::string before = repo_.page("alpha");
  const std::string manifest = repo_.dir.read("wiki/manifest.json");
  const struct {
    const char* from;
    const char* to;
    std::optional<std::string> version;
    const char* says;
  } kRows[] = {
      {"nobody", "core/gamma", {}, "not stored"},
      {"core/gamma", "taken", {}, "not written yet"},
      {"../alpha", "core/gamma", {}, "not stored"},
      {"alpha", "", {}, "no page id"},
      {"alpha", "../x", {}, "no page id"},
      {"alpha", "Gamma", {}, "no page id"},
      {"alpha", "beta", {}, "the id of a stored page"},
      {"alpha", "nowhere", {}, "[[page]]"},
      {"alpha", "alpha-2", {}, "not in the plan"},
      {"alpha", "taken", {}, "no stored page"},
      {"alpha", "core/gamma", "0123456789abcdef", "no longer version"},
      {"alpha", "core/gamma", "new", "no longer version"},
  };
  for (const auto& [from, to, version, says] : kRows) {
    const Answer answer = rename(from, to, version);
    EXPECT_EQ(answer.begin().key(), "error") << from << " " << to;
    EXPECT_THAT(error_of(answer), HasSubstr(says)) << from << " " << to;
    EXPECT_EQ(answer.at("page_id"), from);
  }
  EXPECT_EQ(repo_.page("alpha"), before);
  EXPECT_EQ(repo_.dir.read("wiki/manifest.json"), manifest);
  EXPECT_FALSE(has_page("core/gamma"));
  EXPECT_THAT(replaced_texts(repo_), IsEmpty());
  fs::remove(repo_.dir / "wiki/pages/alpha.md");
  EXPECT_THAT(error_of(rename("alpha", "core/gamma")), HasSubstr("its file is gone"));
  repo_.dir.write("wiki/pages/alpha.md", "# A\n\n\xff\n");
  EXPECT_THAT(error_of(rename("alpha", "core/gamma")), HasSubstr("not UTF-8"));
  repo_.dir.write("wiki/pages/alpha.md", before);
  EXPECT_EQ(error_of(rename("alpha", "core/gamma", version_of(before))), "");
}

TEST_F(RenamingTest, NothingIsDoneWhileAnotherHoldsTheLock) {
  configure("[wiki]\nlock_timeout_s = 0.05\n" + entry("core/gamma", "Gamma", "module", "alpha"));
  wiki_ = repo_.open();
  const auto other = repo_.open();
  other->with_write_lock(true, [&] {
    EXPECT_THAT(error_of(rename("alpha", "core/gamma")), HasSubstr("another save of this process"));
    utils::Task task;
    EXPECT_THAT(error_of(remove_page(*wiki_, "alpha", {}, "test", task)),
                HasSubstr("another save of this process"));
    task.cancel();
    EXPECT_THROW(remove_page(*wiki_, "alpha", {}, "test", task), utils::Cancelled);
  });
  EXPECT_TRUE(has_page("alpha"));
  EXPECT_FALSE(has_page("core/gamma"));
  EXPECT_EQ(error_of(rename("alpha", "core/gamma")), "") << "and the lock is free again";
}

TEST_F(RenamingTest, AnEditByHandComesAlongAndACopyIsKept) {
  replace_in_file(repo_, "wiki/pages/alpha.md", "Second [src/alpha.cpp:L4]", "By hand [src/alpha.cpp:L5]");
  replace_in_file(repo_, "wiki/pages/alpha.md", "# Alpha\n", "# By hand\n");
  const std::string edited = repo_.page("alpha");
  const Answer answer = rename("alpha", "core/gamma");
  EXPECT_THAT(utils::json_text(answer.at("warnings")), HasSubstr("hand-edit: "));
  EXPECT_EQ(answer.at("title"), "By hand");
  EXPECT_THAT(replaced_texts(repo_), ElementsAre(edited));
  EXPECT_THAT(repo_.page("core/gamma"), HasSubstr("By hand [src/alpha.cpp:L5]"));
  EXPECT_EQ(state_of(*wiki_, "core/gamma").condition, PageCondition::unverified);
  EXPECT_EQ(names_of(check(repo_).findings), "unverified wiki/pages/core/gamma.md");
  // So does an edit of a page that links to it, which stays an edit.
  replace_in_file(repo_, "wiki/pages/beta.md", "Second", "Edited");
  configure(entry("delta", "Delta", "module", "alpha") + entry("beta", "Beta", "module", "beta"));
  wiki_ = repo_.open();
  ASSERT_EQ(error_of(rename("core/gamma", "delta")), "");
  EXPECT_THAT(repo_.page("beta"), HasSubstr("Edited"));
  EXPECT_THAT(repo_.page("beta"), HasSubstr("[Alpha]: delta.md\n"));
  EXPECT_THAT(findings_in(repo_), HasSubstr("wiki/pages/beta.md"));
}

TEST_F(RenamingTest, APageOfWhichNobodyKnowsTheSourcesStaysUnverified) {
  configure(entry("hand", "Hand", "topic", "alpha") + entry("beta", "Beta", "module", "beta"));
  repo_.dir.write("wiki/pages/hand.md", "# Hand\n\nOf [src/alpha.cpp:L1].\n");
  ASSERT_THAT(findings_in(repo_), HasSubstr("file-without-row"));
  check(repo_, true);
  configure(entry("core/gamma", "Gamma", "module", "alpha") + entry("beta", "Beta", "module", "beta"));
  wiki_ = repo_.open();
  ASSERT_EQ(error_of(rename("hand", "core/gamma")), "");
  for (const bool is_clone : {false, true}) {
    EXPECT_EQ(state_of(*wiki_, "core/gamma").condition, PageCondition::unverified) << is_clone;
    EXPECT_EQ(WikiReader(*wiki_).standing_id("hand"), "core/gamma") << is_clone;
    wiki_.reset();
    forget_local_state(repo_);
    wiki_ = repo_.open();
    adopt_pages(*wiki_);
  }
}

// What is on disk when the renaming fails there; the repair, or the same call again, brings it to its end.
TEST_F(RenamingTest, ARenamingThatWasCutShortIsFinished) {
  const std::string old_file = repo_.page("alpha");
  const struct {
    const char* why;
    const char* fails_at;
    bool old_file_is_there;
    bool again;  // instead of a repair
  } kRows[] = {{"at the row", "upsert_wiki_page", false, false},
               {"at the digests", "persist_digests", false, false},
               {"at the commit", "commit", false, false},
               {"before the old file went", "upsert_wiki_page", true, false},
               {"before the old file went, called again", "upsert_wiki_page", true, true}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.why);
    wiki_.reset();
    fs::remove_all(repo_.dir / ".ossilar/replaced");
    const fs::path saved = fs::path(repo_.dir.path()).string() + "-before";
    fs::remove_all(saved);
    fs::copy(repo_.dir.path(), saved, fs::copy_options::recursive);
    const auto real = store::open_sqlite_store(repo_.dir / ".ossilar/index.db");
    bool is_linked = false;  // the page that links here is committed before
    wiki_ = repo_.open_with(std::make_unique<HookedStore>(*real, [&](const std::string& operation) {
      const bool is_first_commit = operation == "commit" && !std::exchange(is_linked, true);
      if (operation == row.fails_at && !is_first_commit) throw store::StorageError("full");
    }));
    EXPECT_THROW(rename("alpha", "core/gamma"), store::StorageError);
    ASSERT_THAT(replaced_texts(repo_), ElementsAre(old_file));
    if (row.old_file_is_there) repo_.dir.write("wiki/pages/alpha.md", old_file);
    EXPECT_THAT(findings_in(repo_), HasSubstr("half-renamed wiki/pages/core/gamma.md"));
    wiki_ = repo_.open();
    if (row.again) {
      EXPECT_EQ(error_of(rename("alpha", "core/gamma")), "");
    } else {
      EXPECT_EQ(names_of(check(repo_, true).findings), "");
    }
    wiki_ = repo_.open();
    expect_renamed();
    for (const std::string& kept : replaced_texts(repo_)) EXPECT_EQ(kept, old_file);
    wiki_.reset();
    fs::remove_all(repo_.dir.path());
    fs::rename(saved, repo_.dir.path());
  }
}

// A copy has the record of what it is a copy of.
TEST_F(RenamingTest, ACopyOfARenamedPageIsNoRenamingCutShort) {
  ASSERT_EQ(error_of(rename("alpha", "core/gamma")), "");
  configure(entry("core/gamma", "Gamma", "module", "alpha") + entry("alpha", "New", "topic", "beta") +
            entry("copy", "Copy", "topic", "beta") + entry("beta", "Beta", "module", "beta"));
  ASSERT_TRUE(is_saved(save(*repo_.open(), "alpha", WikiRepo::text_about("beta", "Another page."))));
  repo_.dir.write("wiki/pages/copy.md", repo_.page("core/gamma"));
  EXPECT_EQ(findings_in(repo_), "file-without-row wiki/pages/copy.md");
  EXPECT_EQ(names_of(check(repo_, true).findings), "drifted wiki/pages/copy.md");
  EXPECT_TRUE(has_page("alpha"));
}

TEST_F(RenamingTest, AnOrphanedPageIsToldWhichPageItMayBecome) {
  const auto advice = [&] {
    wiki_ = repo_.open();
    const PageState state = state_of(*wiki_, "alpha");
    EXPECT_EQ(state.condition, PageCondition::orphaned);
    EXPECT_THAT(state.reason, HasSubstr("ossilar remove alpha"));
    for (const Finding& finding : check(repo_).findings) {
      if (finding.fault != Fault::orphaned) continue;
      EXPECT_EQ(finding.message, "is orphaned: no longer in the plan");
      EXPECT_THAT(state.reason + "; a [[page]] in ossilar.toml keeps it", HasSubstr(finding.advice));
    }
    return state.heir + "|" + state.reason;
  };
  EXPECT_THAT(advice(), StartsWith("core/gamma|"));
  EXPECT_THAT(advice(), HasSubstr("ossilar rename alpha core/gamma"));
  repo_.dir.write("src/moved.cpp", WikiRepo::ten_lines("alpha"));
  fs::remove(repo_.dir / "src/alpha.cpp");
  configure(entry("core/moved", "Moved", "module", "moved") + entry("beta", "Beta", "module", "beta"));
  EXPECT_THAT(advice(), StartsWith("core/moved|")) << "what it cites is there now";
  fs::remove(repo_.dir / "src/moved.cpp");
  EXPECT_THAT(advice(), StartsWith("|")) << "what it cites is gone";
  EXPECT_THAT(advice(), HasSubstr("ossilar rename alpha ID"));
}

}  // namespace
}  // namespace ossilar::workers::wiki
