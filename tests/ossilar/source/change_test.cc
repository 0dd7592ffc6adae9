#include "ossilar/source/change.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/source/repository.h"
#include "ossilar/utils/error.h"

namespace ossilar::source {
namespace {

using ::ossilar::testing::Repository;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Each changed file with its texts: "a.cc: one > two", where "-" is a side without a text.
std::vector<std::string> shown(const Change& change) {
  std::vector<std::string> lines;
  const auto text = [](const std::optional<std::string>& content) {
    return content ? content->substr(0, content->find('\n')) : "-";
  };
  for (const TreeChange& file : change.files())
    lines.push_back(file.path + ": " + text(change.before(file)) + " > " + text(change.after(file)));
  return lines;
}

// The first commit has a.cc, d/b.cc and f; in the second a.cc is changed, d/b.cc gone, d/e/c.cc new, and a
// folder in the place of f.
class ChangeTest : public ::testing::Test {
 protected:
  ChangeTest() {
    repository_.run(R"(git init -q r; mkdir r/d; echo one > r/a.cc; echo b > r/d/b.cc; echo f > r/f; commit r
      echo two > r/a.cc; rm r/d/b.cc r/f; mkdir -p r/d/e r/f; echo c > r/d/e/c.cc; echo x > r/f/x; commit r)");
  }
  std::vector<std::string> change(const Comparison& compared) const {
    return shown(Change(repository_ / "r", compared));
  }

  Repository repository_;
};

TEST_F(ChangeTest, BetweenTwoCommitsEitherWay) {
  EXPECT_THAT(change({.from = "HEAD~1", .to = Side::commit, .commit = "HEAD"}),
              ElementsAre("a.cc: one > two", "d/b.cc: b > -", "d/e/c.cc: - > c", "f: f > -", "f/x: - > x"));
  EXPECT_THAT(change({.from = "HEAD", .to = Side::commit, .commit = "HEAD~1"}),
              ElementsAre("a.cc: two > one", "d/b.cc: - > b", "d/e/c.cc: c > -", "f: - > f", "f/x: x > -"));
  EXPECT_THAT(change({.from = "HEAD", .to = Side::commit, .commit = "main"}), IsEmpty());
}

TEST_F(ChangeTest, OfTheWorkingTreeAndOfWhatIsStaged) {
  const Comparison working{.from = "HEAD", .to = Side::working, .commit = {}};
  const Comparison staged{.from = "HEAD", .to = Side::staged, .commit = {}};
  EXPECT_THAT(change(working), IsEmpty());
  repository_.run(
      "echo three > r/a.cc; git -C r add a.cc; echo four > r/a.cc; rm r/d/e/c.cc; echo u > r/untracked");
  EXPECT_THAT(change(staged), ElementsAre("a.cc: two > three"));
  EXPECT_THAT(change(working), ElementsAre("a.cc: two > four", "d/e/c.cc: c > -"));
  EXPECT_THAT(change({.from = "HEAD~1", .to = Side::working, .commit = {}}),
              ElementsAre("a.cc: one > four", "d/b.cc: b > -", "f: f > -", "f/x: - > x"));
  repository_.run("cd r; git mv f/x g; touch -d 2020-01-01 a.cc");
  EXPECT_THAT(change(working), ElementsAre("a.cc: two > four", "d/e/c.cc: c > -", "f/x: x > -", "g: - > x"));
}

// It was written anew at once, with as many bytes: neither size nor time can tell.
TEST_F(ChangeTest, SeesAFileThatWasWrittenWhileItWasStaged) {
  repository_.run(R"(cd r; at=2024-05-05T05:05:05; echo 1 > n; touch -d $at n; git add n
    echo 2 > n; touch -d $at n; touch -d $at .git/index)");
  EXPECT_THAT(change({.from = "HEAD", .to = Side::working, .commit = {}}), ElementsAre("n: - > 2"));
}

TEST_F(ChangeTest, KnowsNoTextOfWhatIsNone) {
  repository_.run(R"(cd r; printf 'a\0b' > a.cc; ln -s a.cc link; git add link)");
  EXPECT_THAT(change({.from = "HEAD", .to = Side::working, .commit = {}}),
              ElementsAre("a.cc: two > -", "link: - > -"));
}

TEST_F(ChangeTest, NeedsBothCommits) {
  repository_.run("git clone -q --depth 1 \"file://$PWD/r\" shallow");
  const Comparison compared{.from = "HEAD~1", .to = Side::commit, .commit = "HEAD"};
  EXPECT_THROW(Change(repository_ / "shallow", compared), utils::ConfigError);
}

}  // namespace
}  // namespace ossilar::source
