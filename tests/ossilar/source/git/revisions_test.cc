#include "ossilar/source/git/revisions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/source/repository.h"
#include "ossilar/utils/error.h"

namespace ossilar::source {
namespace {

using ::ossilar::testing::Repository;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

// Three commits; two tags, one of them annotated, and two branches at the second.
class RevisionsTest : public ::testing::Test {
 protected:
  RevisionsTest() {
    repository_.run(R"(git init -q r; echo one > r/a.cc; commit r; echo two > r/a.cc; commit r
      git -C r tag -a -m t v1; git -C r tag light; git -C r branch side; git -C r branch feature/x
      echo three > r/a.cc; commit r)");
  }
  // What git makes of the name.
  std::string id(const std::string& name) const {
    repository_.run("git -C r rev-parse '" + name + "' > id");
    return repository_.read("id").substr(0, 40);
  }

  Repository repository_;
};

TEST_F(RevisionsTest, FindsCommitsAsGitDoes) {
  for (const bool is_packed : {false, true}) {
    if (is_packed) repository_.run("git -C r gc -q");
    const GitObjects objects(repository_ / "r");
    const std::string head = id("HEAD");
    for (const std::string& name :
         {std::string("HEAD"), std::string("main"), std::string("feature/x"), std::string("refs/heads/side"),
          std::string("heads/side"), std::string("v1"), std::string("light"), std::string("tags/v1"),
          std::string("HEAD~1"), std::string("main~2"), std::string("main^^"), std::string("v1~"),
          std::string("HEAD~1^1"), head, head.substr(0, 10), head.substr(0, 10) + "~1"})
      EXPECT_EQ(commit_named(objects, name), id(name + "^{commit}")) << name;
  }
}

TEST_F(RevisionsTest, RefusesEverythingElse) {
  const GitObjects objects(repository_ / "r");
  for (const std::string& name :
       {std::string(), std::string("nothing"), std::string("HEAD~9"), std::string("HEAD^2"),
        std::string("-x"), std::string("/etc/passwd"), std::string("../r/HEAD"), std::string("main..side"),
        std::string("HEAD:a.cc"), std::string("HEAD@{1}"), std::string(":/m"), std::string("v1^{commit}"),
        std::string("a b"), std::string("HEAD\n"), std::string("~1"), std::string("0000000000"),
        std::string("HEAD~99999999999"), blob_id("one\n")}) {
    EXPECT_THAT([&] { commit_named(objects, name); },
                ThrowsMessage<utils::ConfigError>(HasSubstr("no commit '")))
        << name;
  }
}

TEST_F(RevisionsTest, SaysWhyNoObjectCanBeHad) {
  repository_.run("git clone -q --shared r borrowing; mkdir folder");
  for (const auto& [root, why] : {std::pair("borrowing", "alternates"), {"folder", "no git repository"}}) {
    const GitObjects objects(repository_ / root);
    EXPECT_THAT([&] { commit_named(objects, "HEAD"); }, ThrowsMessage<utils::ConfigError>(HasSubstr(why)));
  }
}

// libgit2 would wait without end for somebody to write into it.
TEST_F(RevisionsTest, APipeInPlaceOfAnObjectIsAnError) {
  const std::string middle = id("HEAD~1");
  const std::string file = "r/.git/objects/" + middle.substr(0, 2) + "/" + middle.substr(2);
  repository_.run("rm -f " + file + "; mkfifo " + file);
  const GitObjects objects(repository_ / "r");
  EXPECT_EQ(commit_named(objects, "HEAD"), id("HEAD"));
  for (const std::string& name :
       {std::string("HEAD~1"), std::string("v1"), std::string("side"), middle, middle.substr(0, 10)})
    EXPECT_THROW(commit_named(objects, name), utils::Error) << name;
}

}  // namespace
}  // namespace ossilar::source
