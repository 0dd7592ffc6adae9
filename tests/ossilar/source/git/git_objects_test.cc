#include "ossilar/source/git/git_objects.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/source/repository.h"
#include "ossilar/utils/error.h"

namespace ossilar::source {
namespace {

using ::ossilar::testing::Repository;
using ::testing::ElementsAre;
using ::testing::Pair;

// What `git rev-parse NAME` says in the repository r.
std::string id_of(const Repository& repository, const std::string& name) {
  repository.run("git -C r rev-parse '" + name + "' > id");
  return repository.read("id").substr(0, 40);
}

// Three commits: the first with a.cc and d/b.cc, the second with a.cc changed and the branch `side`, the
// third with d/b.cc gone and d/e/c.cc new.
class GitObjectsTest : public ::testing::Test {
 protected:
  GitObjectsTest() {
    repository_.run(R"(git init -q r; mkdir r/d; echo one > r/a.cc; echo b > r/d/b.cc; commit r
      echo two > r/a.cc; commit r; git -C r branch side
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
  EXPECT_THAT(*objects.files(id("HEAD")),
              ElementsAre(Pair("a.cc", blob_id("two\n")), Pair("d/e/c.cc", blob_id("c\n"))));
}

TEST_F(GitObjectsTest, BorrowedObjectsAreNotRead) {
  const std::string head = id("HEAD");
  repository_.run("git clone -q --shared r borrowing");
  GitObjects objects(repository_ / "borrowing");
  EXPECT_EQ(objects.blob(blob_id("two\n")), std::nullopt);
  EXPECT_EQ(objects.files(head), std::nullopt);
}

TEST_F(GitObjectsTest, AShallowCloneHasItsNewestCommitAlone) {
  repository_.run("git clone -q --depth 1 \"file://$PWD/r\" shallow");
  GitObjects objects(repository_ / "shallow");
  EXPECT_TRUE(objects.files(id("HEAD")));
  EXPECT_EQ(objects.files(id("HEAD~1")), std::nullopt);
  EXPECT_EQ(objects.blob(blob_id("one\n")), std::nullopt);
}

TEST_F(GitObjectsTest, ALinkedWorkingTreeHasTheSameObjects) {
  repository_.run("git -C r worktree add -q ../linked side");
  GitObjects objects(repository_ / "linked");
  EXPECT_EQ(objects.blob(blob_id("c\n")), "c\n");
}

TEST(GitObjectsOutsideGitTest, KnowNothing) {
  const Repository folder;
  GitObjects objects(folder.path());
  const std::string some(40, 'a');
  EXPECT_EQ(objects.blob(some), std::nullopt);
  EXPECT_EQ(objects.files(some), std::nullopt);
}

// libgit2 would wait without end for somebody to write into it.
TEST_F(GitObjectsTest, APipeInPlaceOfAnObjectIsAnError) {
  const auto replace = [&](const std::string& object) {
    const std::string file = "r/.git/objects/" + object.substr(0, 2) + "/" + object.substr(2);
    repository_.run("rm -f " + file + "; mkfifo " + file);
  };
  const std::string commit = id("HEAD~2");
  const std::string tree = id("HEAD~2:d");
  replace(blob_id("one\n"));
  GitObjects objects(repository_ / "r");
  EXPECT_THROW(objects.blob(blob_id("one\n")), utils::Error);
  replace(tree);
  EXPECT_THROW(objects.files(commit), utils::Error);
}

}  // namespace
}  // namespace ossilar::source
