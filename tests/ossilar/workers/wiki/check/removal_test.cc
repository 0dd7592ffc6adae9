// A page is taken out of the wiki.
#include "ossilar/workers/wiki/check/removal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "findings.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "support/hooked_store.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::check;
using ossilar::testing::error_of;
using ossilar::testing::findings_in;
using ossilar::testing::HookedStore;
using ossilar::testing::is_saved;
using ossilar::testing::names_of;
using ossilar::testing::pages_about;
using ossilar::testing::replaced_texts;
using ossilar::testing::save;
using ossilar::testing::state_of;
using ossilar::testing::WikiRepo;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// The pages overview and beta, both with a link to alpha, which has none.
class RemovalTest : public ::testing::Test {
 protected:
  RemovalTest() : wiki_(repo_.open()) {
    EXPECT_TRUE(is_saved(save(*wiki_, "alpha", WikiRepo::text_about("alpha"))));
    EXPECT_TRUE(is_saved(save(*wiki_, "beta", WikiRepo::text_about("beta", "Of [Alpha]."))));
    EXPECT_TRUE(is_saved(save(*wiki_, "overview", WikiRepo::text_about("beta", "It has [Alpha]."))));
  }

  Answer remove(const std::string& page_id, const std::optional<std::string>& version = {}) {
    utils::Task task;
    return remove_page(*wiki_, page_id, version, "test", task);
  }
  bool has_alpha() const { return std::filesystem::exists(repo_.dir / "wiki/pages/alpha.md"); }

  const WikiRepo repo_;
  std::shared_ptr<Wiki> wiki_;
};

TEST_F(RemovalTest, APlannedPageIsMissingThenAndThoseAboveItAreStale) {
  const std::string text = repo_.page("alpha");
  const std::string linking = repo_.page("beta");
  const Answer answer = remove("alpha", version_of(text));
  ASSERT_EQ(error_of(answer), "");
  EXPECT_EQ(answer.at("linked_by"), Map::array({"beta", "overview"}));
  EXPECT_EQ(repo_.dir.read(utils::string_member(answer, "kept")), text);
  EXPECT_FALSE(has_alpha());
  EXPECT_EQ(state_of(*wiki_, "alpha").condition, PageCondition::missing);
  EXPECT_EQ(state_of(*wiki_, "overview").reason, "pages it builds on changed: alpha");
  EXPECT_EQ(state_of(*wiki_, "beta").condition, PageCondition::ok);
  EXPECT_EQ(repo_.page("beta"), linking);
  EXPECT_EQ(findings_in(repo_), "stale wiki/pages/overview.md");
  EXPECT_THAT(repo_.dir.read("wiki/index.md") + repo_.dir.read("wiki/manifest.json"),
              Not(HasSubstr("alpha.md")));
  EXPECT_THAT(pages_about(*wiki_, "alpha"), Not(Contains("alpha")));
  EXPECT_TRUE(is_saved(save(*wiki_, "alpha", WikiRepo::text_about("alpha")))) << "it can be written again";
}

TEST_F(RemovalTest, AnOrphanedPageGoesWithoutMakingOthersStale) {
  repo_.dir.write(
      "ossilar.toml",
      "[[page]]\nid = \"beta\"\ntitle = \"Beta\"\ntype = \"module\"\nsources = [\"src/beta.cpp\"]\n");
  std::filesystem::remove(repo_.dir / "src/alpha.cpp");
  wiki_ = repo_.open();
  ASSERT_EQ(state_of(*wiki_, "alpha").condition, PageCondition::orphaned);
  ASSERT_EQ(error_of(remove("alpha")), "");
  EXPECT_EQ(findings_in(repo_), "drifted wiki/pages/overview.md") << "by the file that went, not by the page";
}

TEST_F(RemovalTest, RefusalsSayWhyAndChangeNothing) {
  const struct {
    const char* page_id;
    std::optional<std::string> version;
    const char* says;
  } kRows[] = {{"nobody", {}, "not stored"},
               {"architecture", {}, "not written yet"},
               {"../beta", {}, "not stored"},
               {"alpha", "0123456789abcdef", "no longer version"},
               {"alpha", "new", "no longer version"}};
  for (const auto& [page_id, version, says] : kRows) {
    const Answer answer = remove(page_id, version);
    EXPECT_EQ(answer.begin().key(), "error") << page_id;
    EXPECT_THAT(error_of(answer), HasSubstr(says)) << page_id;
    EXPECT_EQ(answer.at("page_id"), page_id);
  }
  EXPECT_EQ(findings_in(repo_), "");
  EXPECT_THAT(replaced_texts(repo_), IsEmpty());
}

// Read before, edited since: the agent is shown what it did not know.
TEST_F(RemovalTest, APageThatChangedSinceItWasReadIsShownAndStays) {
  const std::string read = std::get<StoredPage>(WikiReader(*wiki_).read_page("alpha")).version;
  ASSERT_TRUE(is_saved(save(*wiki_, "alpha", WikiRepo::text_about("alpha", "Newer."))));
  const Answer answer = remove("alpha", read);
  EXPECT_THAT(error_of(answer), HasSubstr("no longer version " + read));
  EXPECT_THAT(utils::string_member(answer, "diff"), HasSubstr("+Newer."));
  EXPECT_EQ(answer.at("version"), version_of(repo_.page("alpha")));
  EXPECT_TRUE(has_alpha());
}

TEST_F(RemovalTest, APageWhoseFileIsGoneIsRemovedAndTheTextOfItsRowKept) {
  std::filesystem::remove(repo_.dir / "wiki/pages/alpha.md");
  const Answer answer = remove("alpha");
  ASSERT_EQ(error_of(answer), "");
  EXPECT_EQ(repo_.dir.read(utils::string_member(answer, "kept")),
            "# Alpha\n\n" + WikiRepo::text_about("alpha"));
  EXPECT_EQ(findings_in(repo_), "stale wiki/pages/overview.md");
}

TEST_F(RemovalTest, ARemovalThatFailsAtItsRowIsFinishedByARepair) {
  const std::string text = repo_.page("alpha");
  const auto real = store::open_sqlite_store(repo_.dir / ".ossilar/index.db");
  wiki_ = repo_.open_with(std::make_unique<HookedStore>(*real, [](const std::string& operation) {
    if (operation == "persist_digests") throw store::StorageError("full");
  }));
  EXPECT_THROW(remove("alpha"), store::StorageError);
  EXPECT_THAT(replaced_texts(repo_), ElementsAre(text));
  EXPECT_THAT(findings_in(repo_), HasSubstr("row-without-file wiki/pages/alpha.md"));
  EXPECT_EQ(names_of(check(repo_, true).findings), "");
  EXPECT_EQ(repo_.open()->stored_pages().find("alpha"), nullptr);
}

}  // namespace
}  // namespace ossilar::workers::wiki
