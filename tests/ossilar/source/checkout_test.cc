#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/source/checkout.h"
#include "ossilar/source/repository.h"
#include "ossilar/utils/error.h"
#include "support/rows.h"

namespace ossilar::source {
namespace {

using ::ossilar::testing::Repository;
using ::ossilar::testing::rows_of;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::ThrowsMessage;

TEST(CheckoutTest, SaysNameBranchAndCommit) {
  for (const Map& row : rows_of("source/checkout.txt")) {
    SCOPED_TRACE(row);
    const Repository repository;
    repository.run(row.at(0));
    const Checkout checkout = read_checkout(repository / "r");
    const std::string branch = row.at(1);
    EXPECT_EQ(checkout.root, repository / "r");
    EXPECT_EQ(checkout.in_git, !branch.empty());
    EXPECT_EQ(checkout.branch, branch.empty() ? "default" : branch);
    EXPECT_THAT(checkout.commit, MatchesRegex(row.at(2) ? "[0-9a-f]{40}" : ""));
    EXPECT_EQ(checkout.name, row.at(3));
  }
}

TEST(CheckoutTest, AnUnreadableRepositoryIsAnErrorThatNamesIt) {
  for (const Map& row : rows_of("source/unreadable_repositories.txt")) {
    SCOPED_TRACE(row);
    const Repository repository;
    repository.run(row.at(0));
    EXPECT_THAT([&] { read_checkout(repository.path()); },
                ThrowsMessage<utils::Error>(
                    AllOf(HasSubstr(std::string(row.at(1))), HasSubstr(repository.path().string()))));
  }
}

// Headers that git or libgit2 may read as an include, and some that neither does.
TEST(CheckoutTest, SettingsThatIncludeOtherFilesAreRefusedAtTheirLine) {
  const Repository repository;
  repository.run("git init -q r; echo > r/.git/config");
  const auto outcome = [&](const std::string& settings) -> std::string {
    repository.write("r/.git/config", settings);
    try {
      return read_checkout(repository / "r").name;
    } catch (const utils::Error& error) {
      return error.what();
    }
  };
  for (const char* settings :
       {"\n[include]\npath = x\n", "\n \t[INCLUDE] path = x", "#\n[includeIf \"gitdir:/\"]\npath = x\n",
        "\r\n[iNcludeIF\t\"onbranch:a\"] path = x\r\n", "\n[a] [b \"]\"][include]path = x",
        "\n[a \"\\\"\"] [include] path = x", "\xEF\xBB\xBF\n[include]\npath = x", "[a]\n[include"}) {
    EXPECT_THAT(outcome(settings),
                AllOf(HasSubstr("r/.git/config line 2: [include"), HasSubstr("git config --file")))
        << settings;
  }
  for (const char* settings : {"# [include]\n", "; x [include]\n", "[a]\nx = [include]\n",
                               "[includes]\nx = y\n", "[a \"include\"]\nx = y\n", "[a]\ninclude = x\n", ""})
    EXPECT_EQ(outcome(settings), "r") << settings;
}

// Links that git itself follows.
TEST(CheckoutTest, GitFilesMayBeSymbolicLinks) {
  const Repository repository;
  repository.run(
      R"(git init -q r; commit r; mkdir s; ln -s ../r/.git s/.git; cd r/.git; ln -sf refs/heads/main HEAD
    mv config index ..; ln -s ../config ../index .)");
  const Checkout real = read_checkout(repository / "r");
  const Checkout linked = read_checkout(repository / "s");
  EXPECT_EQ(linked.commit, real.commit);
  EXPECT_EQ(real.commit.size(), 40U);
}

TEST(CheckoutTest, RootIsTheNearestFolderWithAMark) {
  const Repository folder;
  folder.run("mkdir -p a/.git a/b/c/.ossilar a/b/c/d; echo > a/b/ossilar.toml; ln -s a/b/c/d link");
  EXPECT_EQ(find_root(folder / "a/b/c/d"), folder / "a/b/c");
  EXPECT_EQ(find_root(folder / "a/b"), folder / "a/b");
  EXPECT_EQ(find_root(folder / "a"), folder / "a");
  EXPECT_EQ(find_root(folder / "link"), folder / "a/b/c");
  EXPECT_EQ(find_root(folder / "missing"), std::nullopt);
}

// A reader with a cache returns the same as one without.
TEST(CheckoutTest, AReaderSeesEveryChange) {
  const char* const kSettle = "find r/.git w -exec touch -h -d '1 minute ago' {} + 2>/dev/null || true";
  for (const char* root : {"r", "w"}) {  // a working tree and one that is linked to it
    for (const char* change : {"commit $R", "git -C $R switch -qc other", "git -C $R checkout -q --detach",
                               "git -C $R pack-refs --all", "git -C $R pack-refs --all; commit $R",
                               "git -C $R remote add origin https://host/team/tool.git",
                               "git -C $R update-ref -d HEAD", "rm -rf $R/.git",
                               "git -C $R symbolic-ref refs/heads/alias refs/heads/main; git -C $R "
                               "symbolic-ref HEAD refs/heads/alias",
                               // This link's text is as long as that of a commit.
                               "git -C $R symbolic-ref refs/heads/exactly-24-characters-in refs/heads/main; "
                               "git -C $R symbolic-ref refs/heads/link refs/heads/exactly-24-characters-in; "
                               "git -C $R symbolic-ref HEAD refs/heads/link"}) {
      SCOPED_TRACE(std::string(root) + ": " + change);
      const Repository repository;
      repository.run(
          "git init -q r; commit r; git -C r worktree add -qb tree ../w; git -C r pack-refs --all");
      CheckoutReader reader(repository / root);
      const auto expect_same = [&] {
        const Checkout seen = reader.read();
        const Checkout now = read_checkout(repository / root);
        EXPECT_EQ(std::tie(seen.name, seen.in_git, seen.branch, seen.commit),
                  std::tie(now.name, now.in_git, now.branch, now.commit));
      };
      for (int round = 0; round < 2; ++round) {
        repository.run(kSettle);
        expect_same();
        expect_same();
        repository.run(std::string("R=") + root + "; " +
                       (round == 0 ? change : "test -e $R/.git && commit $R || true"));
        expect_same();
      }
    }
  }
}

// A young file may be written again within one tick of the file system's clock.
TEST(CheckoutTest, AReaderDoesNotTrustAYoungFile) {
  const Repository repository;
  repository.run("git init -q r; commit r; git -C r branch old; git -C r commit -q --allow-empty -m n");
  repository.run("find r/.git -exec touch -d '1 minute ago' {} +; touch -d '1 hour' r/.git/refs/heads/main");
  CheckoutReader reader(repository / "r");
  const std::string before = reader.read().commit;
  repository.run("cd r/.git/refs/heads; touch -r main ../time; cat old > main; touch -r ../time main");
  EXPECT_NE(reader.read().commit, before);
}

TEST(CheckoutTest, AReaderReadsAgainOnlyWhatChanged) {
  const Repository repository;
  repository.run("git init -q r; commit r; find r/.git -exec touch -d '1 minute ago' {} +");
  CheckoutReader reader(repository / "r");
  const Checkout before = reader.read();
  repository.run("mv r/.git/objects r/.git/gone");
  EXPECT_EQ(reader.read().commit, before.commit);
  repository.run("touch r/.git/HEAD");
  EXPECT_THROW(reader.read(), utils::Error);
  EXPECT_THROW(reader.read(), utils::Error) << "what was read before a failure is not given again";
}

}  // namespace
}  // namespace ossilar::source
