#include "ossilar/source/git_objects.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/source/repository.h"
#include "ossilar/utils/error.h"

namespace ossilar::source {
namespace {

using ::ossilar::testing::Repository;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::ThrowsMessage;

// What `git rev-parse NAME` says in the repository r.
std::string id_of(const Repository& repository, const std::string& name) {
  repository.run("git -C r rev-parse '" + name + "' > id");
  return repository.read("id").substr(0, 40);
}

// Three commits: the first with a.cc and d/b.cc, the second and the tag v1 with a.cc changed, the third with
// d/b.cc gone and d/e/c.cc new. The branch `side` begins at the second.
class GitObjectsTest : public ::testing::Test {
 protected:
  GitObjectsTest() {
    repository_.run(R"(git init -q r; mkdir r/d; echo one > r/a.cc; echo b > r/d/b.cc; commit r
      echo two > r/a.cc; commit r; git -C r tag -a -m t v1; git -C r tag light
      git -C r branch side; git -C r branch feature/x
      rm r/d/b.cc; mkdir -p r/d/e; echo c > r/d/e/c.cc; commit r)");
  }
  std::string id(const std::string& name) const { return id_of(repository_, name); }

  Repository repository_;
};

TEST_F(GitObjectsTest, BlobIdIsThatOfGit) {
  EXPECT_EQ(blob_id("one\n"), id("HEAD~2:a.cc"));
  EXPECT_EQ(blob_id(""), "e69de29bb2d1d6434b8b29ae775ad8c2e48c5391");
}

TEST_F(GitObjectsTest, ReadsBlobsWhetherPackedOrNot) {
  repository_.run("echo late > r/late; commit r");
  for (const char* script : {"true", "git -C r gc -q", "echo later > r/later; commit r"}) {
    repository_.run(script);
    GitObjects objects(repository_ / "r");
    EXPECT_EQ(objects.hindrance(), "");
    EXPECT_EQ(objects.blob(blob_id("one\n")), "one\n") << script;
    EXPECT_EQ(objects.blob(blob_id("late\n")), "late\n") << script;
    for (const std::string& other :
         {std::string(), std::string("x"), std::string(40, 'x'), std::string(40, '0'), std::string(40, 'a')})
      EXPECT_EQ(objects.blob(other), std::nullopt) << other;
  }
}

TEST_F(GitObjectsTest, ListsTheFilesOfACommit) {
  GitObjects objects(repository_ / "r");
  const auto files = objects.files(id("HEAD~2"));
  ASSERT_TRUE(files);
  EXPECT_THAT(*files, ElementsAre(Pair("a.cc", blob_id("one\n")), Pair("d/b.cc", blob_id("b\n"))));
  EXPECT_EQ(objects.files(std::string(40, 'a')), std::nullopt);
  EXPECT_EQ(objects.files(blob_id("one\n")), std::nullopt) << "no commit";
  EXPECT_THAT(objects.staged(),
              ElementsAre(Pair("a.cc", blob_id("two\n")), Pair("d/e/c.cc", blob_id("c\n"))));
}

std::vector<std::string> shown(const std::vector<TreeChange>& changes) {
  std::vector<std::string> texts;
  const auto name = [](const std::string& blob) { return blob.empty() ? "-" : blob.substr(0, 7); };
  for (const TreeChange& change : changes)
    texts.push_back(change.path + " " + name(change.before) + " " + name(change.after));
  return texts;
}

TEST_F(GitObjectsTest, ComparesCommits) {
  GitObjects objects(repository_ / "r");
  const auto blob = [](const char* text) { return blob_id(text).substr(0, 7); };
  const std::string first = id("HEAD~2");
  const std::string last = id("HEAD");
  EXPECT_THAT(shown(objects.changes(first, last)),
              ElementsAre("a.cc " + blob("one\n") + " " + blob("two\n"), "d/b.cc " + blob("b\n") + " -",
                          "d/e/c.cc - " + blob("c\n")));
  EXPECT_THAT(shown(objects.changes(last, id("HEAD~1"))),
              ElementsAre("d/b.cc - " + blob("b\n"), "d/e/c.cc " + blob("c\n") + " -"));
  EXPECT_THAT(objects.changes(last, last), IsEmpty());
  EXPECT_THROW(objects.changes(std::string(40, 'a'), last), utils::Error);
  EXPECT_THROW(objects.changes(last, std::string(40, 'a')), utils::Error);
}

TEST_F(GitObjectsTest, ComparesAFileWithTheFolderThatTookItsPlace) {
  repository_.run("rm r/a.cc; mkdir r/a.cc; echo x > r/a.cc/x; commit r");
  GitObjects objects(repository_ / "r");
  const std::string then = blob_id("two\n").substr(0, 7);
  const std::string now = blob_id("x\n").substr(0, 7);
  EXPECT_THAT(shown(objects.changes(id("HEAD~1"), id("HEAD"))),
              ElementsAre("a.cc " + then + " -", "a.cc/x - " + now));
  EXPECT_THAT(shown(objects.changes(id("HEAD"), id("HEAD~1"))),
              ElementsAre("a.cc - " + then, "a.cc/x " + now + " -"));
}

TEST_F(GitObjectsTest, FindsCommitsByTheirNames) {
  for (const bool is_packed : {false, true}) {
    if (is_packed) repository_.run("git -C r gc -q");
    GitObjects objects(repository_ / "r");
    for (const char* name : {"HEAD", "main", "side", "feature/x", "refs/heads/side", "heads/side", "v1",
                             "light", "tags/v1", "HEAD~1", "HEAD^", "main~2", "main^^", "v1~", "HEAD~1^1"})
      EXPECT_EQ(objects.commit(name), id(std::string(name) + "^{commit}")) << name;
    EXPECT_EQ(objects.commit(id("HEAD")), id("HEAD"));
    EXPECT_EQ(objects.commit(id("HEAD").substr(0, 10)), id("HEAD"));
    EXPECT_EQ(objects.commit(id("HEAD").substr(0, 10) + "~1"), id("HEAD~1"));
  }
}

TEST_F(GitObjectsTest, RefusesOtherRevisions) {
  GitObjects objects(repository_ / "r");
  for (const char* name : {"",           "nothing",      "HEAD~9",    "HEAD^2",     "-x",
                           "--all",      "/etc/passwd",  "../r/HEAD", "main..side", "HEAD:a.cc",
                           "HEAD@{1}",   "@{yesterday}", ":/m",       "HEAD^{/m}",  "v1^{commit}",
                           "a b",        "HEAD\n",       "\x1b[1m",   "~1",         "^HEAD",
                           "0000000000", "main*"}) {
    EXPECT_THAT([&] { objects.commit(name); }, ThrowsMessage<utils::ConfigError>(HasSubstr("no commit '")))
        << name;
  }
  EXPECT_THROW(objects.commit(blob_id("one\n")), utils::ConfigError) << "a blob is no commit";
}

TEST_F(GitObjectsTest, FindsWhereTwoCommitsMeet) {
  repository_.run(
      "git -C r checkout -q side; echo s > r/s; commit r; git -C r checkout -q --orphan o; commit r");
  GitObjects objects(repository_ / "r");
  EXPECT_EQ(objects.merge_base(id("main"), id("side")), id("v1^{commit}"));
  EXPECT_EQ(objects.merge_base(id("main"), id("main~1")), id("main~1"));
  EXPECT_EQ(objects.merge_base(id("main"), id("o")), std::nullopt);
  EXPECT_EQ(objects.merge_base(id("main"), std::string(40, 'a')), std::nullopt);
}

TEST_F(GitObjectsTest, BorrowedObjectsAreNotRead) {
  const std::string head = id("HEAD");
  repository_.run("git clone -q --shared r borrowing");
  GitObjects objects(repository_ / "borrowing");
  EXPECT_THAT(objects.hindrance(), HasSubstr("alternates"));
  EXPECT_EQ(objects.blob(blob_id("two\n")), std::nullopt);
  EXPECT_EQ(objects.files(head), std::nullopt);
  EXPECT_THROW(objects.commit("HEAD"), utils::ConfigError);
  EXPECT_THROW(objects.changes(head, head), utils::Error);
  EXPECT_EQ(objects.merge_base(head, head), std::nullopt);
}

TEST_F(GitObjectsTest, AShallowCloneHasItsNewestCommitAlone) {
  repository_.run("git clone -q --depth 1 \"file://$PWD/r\" shallow");
  GitObjects objects(repository_ / "shallow");
  EXPECT_EQ(objects.hindrance(), "");
  EXPECT_EQ(objects.commit("HEAD"), id("HEAD"));
  EXPECT_TRUE(objects.files(id("HEAD")));
  EXPECT_EQ(objects.files(id("HEAD~1")), std::nullopt);
  EXPECT_EQ(objects.blob(blob_id("one\n")), std::nullopt);
  EXPECT_THROW(objects.commit("HEAD~1"), utils::ConfigError);
  EXPECT_THROW(objects.changes(id("HEAD~1"), id("HEAD")), utils::Error);
  EXPECT_EQ(objects.merge_base(id("HEAD~1"), id("HEAD")), std::nullopt);
}

TEST_F(GitObjectsTest, ALinkedWorkingTreeHasTheSameObjects) {
  repository_.run("git -C r worktree add -q ../linked side");
  GitObjects objects(repository_ / "linked");
  EXPECT_EQ(objects.commit("HEAD"), id("side"));
  EXPECT_EQ(objects.commit("main"), id("main"));
  EXPECT_EQ(objects.blob(blob_id("c\n")), "c\n");
}

TEST(GitObjectsOutsideGitTest, KnowNothing) {
  const Repository folder;
  GitObjects objects(folder.path());
  const std::string some(40, 'a');
  EXPECT_THAT(objects.hindrance(), HasSubstr("no git repository"));
  EXPECT_EQ(objects.blob(some), std::nullopt);
  EXPECT_EQ(objects.files(some), std::nullopt);
  EXPECT_EQ(objects.merge_base(some, some), std::nullopt);
  EXPECT_THAT(objects.staged(), IsEmpty());
  EXPECT_THROW(objects.commit("HEAD"), utils::ConfigError);
}

// libgit2 would wait without end for somebody to write into it.
TEST_F(GitObjectsTest, APipeInPlaceOfAnObjectIsAnError) {
  const auto replace = [&](const std::string& object) {
    const std::string file = "r/.git/objects/" + object.substr(0, 2) + "/" + object.substr(2);
    repository_.run("rm -f " + file + "; mkfifo " + file);
  };
  const std::string commit = id("HEAD~2");
  const std::string middle = id("HEAD~1");
  const std::string tree = id("HEAD~2:d");
  replace(blob_id("one\n"));
  GitObjects objects(repository_ / "r");
  EXPECT_THROW(objects.blob(blob_id("one\n")), utils::Error);
  replace(tree);
  EXPECT_THROW(objects.files(commit), utils::Error);
  replace(middle);
  EXPECT_EQ(objects.commit("HEAD").size(), 40U);
  for (const std::string& name : {std::string("HEAD~1"), std::string("HEAD~2"), std::string("v1"),
                                  std::string("side"), middle, middle.substr(0, 10)})
    EXPECT_THROW(objects.commit(name), utils::Error) << name;
}

}  // namespace
}  // namespace ossilar::source
