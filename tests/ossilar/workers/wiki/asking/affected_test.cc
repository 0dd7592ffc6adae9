#include "ossilar/workers/wiki/asking/affected.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/utils/error.h"
#include "ossilar/utils/process.h"
#include "ossilar/workers/wiki/asking/cites.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::is_saved;
using ossilar::testing::save;
using ossilar::testing::WikiRepo;
using source::Comparison;
using source::Side;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const Comparison kWorking{.from = "HEAD", .to = Side::working, .commit = {}};

// Alpha cites lines 2 to 4 of its source in section One, lines 8 to 9 in Two; beta cites all of its own and
// line 10 of alpha's. All is committed.
class AffectedTest : public ::testing::Test {
 protected:
  AffectedTest() {
    git("init -q -b main");
    git("add -A && git commit -q -m sources");
    wiki_ = repo_.open();
    EXPECT_TRUE(is_saved(save(*wiki_, "alpha",
                              "About.\n\n## One\n\nFirst [src/alpha.cpp:L2-L4].\n\n## Two\n\nThen "
                              "[src/alpha.cpp:L8-L9].\n")));
    EXPECT_TRUE(
        is_saved(save(*wiki_, "beta", "Beta [src/beta.cpp:L1-L10], as alpha does [src/alpha.cpp:L10].\n")));
    git("add -A && git commit -q -m wiki");
  }

  void git(const std::string& arguments) const {
    const std::string script =
        "cd \"$0\" && export GIT_CONFIG_GLOBAL=/dev/null && git -c user.name=a "
        "-c user.email=a@b " +
        arguments;
    const auto result =
        utils::run_process({"env", "GIT_AUTHOR_NAME=a", "GIT_AUTHOR_EMAIL=a@b", "GIT_COMMITTER_NAME=a",
                            "GIT_COMMITTER_EMAIL=a@b", "sh", "-ec", script, repo_.dir.path().string()},
                           "");
    ASSERT_EQ(result.exit_code, 0) << script << result.errors;
  }
  // The lines of alpha's source, of which number `changed` is another, behind `above` new ones.
  void write_alpha(int changed, int above = 0) const {
    std::string text;
    for (int i = 0; i < above; ++i) text += "// new " + std::to_string(i) + "\n";
    for (int i = 1; i <= 10; ++i)
      text += "int alpha" + std::to_string(i) + (i == changed ? "_other" : "") + "();\n";
    repo_.dir.write("src/alpha.cpp", text);
  }
  // "alpha stale: One@5 [src/alpha.cpp:L2-L4] changed [src/alpha.cpp:L2-L4]" for each page and claim.
  std::vector<std::string> affected(const Comparison& compared) {
    utils::Task task;
    std::vector<std::string> lines;
    for (const AffectedPage& page : affected_pages(*wiki_, compared, task)) {
      std::string line = page.page_id + " " + condition_name(page.condition) + ":";
      for (const auto& [claim, state, now] : page.claims)
        line += " " + claim.known.heading + "@" + std::to_string(claim.line) + " " + state_name(state) +
                (now ? " [" + citation_label(*now) + "]" : "");
      for (const std::string& source : page.sources) line += " " + source;
      lines.push_back(line);
    }
    return lines;
  }
  std::vector<std::string> cites(const std::string& path, std::optional<LineRange> range = {}) {
    utils::Task task;
    std::vector<std::string> lines;
    for (const CitingClaim& claim : citing_claims(*wiki_, path, range, task))
      lines.push_back(claim.page_id + " " + citation_label(claim.claim.known.citation) + " " +
                      state_name(claim.state));
    return lines;
  }

  const WikiRepo repo_;
  std::unique_ptr<Wiki> wiki_;
};

TEST_F(AffectedTest, NamesWhatAChangeAltersAndMoves) {
  EXPECT_THAT(affected(kWorking), IsEmpty());
  write_alpha(6);
  EXPECT_THAT(affected(kWorking), ElementsAre("alpha drifted: src/alpha.cpp")) << "beta does not rest on it";
  write_alpha(3);
  EXPECT_THAT(affected(kWorking), ElementsAre("alpha stale: One@7 changed [src/alpha.cpp:L2-L4]"));
  write_alpha(0, 2);
  EXPECT_THAT(
      affected(kWorking),
      ElementsAre("alpha moved: One@7 moved [src/alpha.cpp:L4-L6] Two@11 moved [src/alpha.cpp:L10-L11]",
                  "beta moved: @3 moved [src/alpha.cpp:L12]"));
}

TEST_F(AffectedTest, FollowsARenameInTheChange) {
  git("mv src/alpha.cpp src/other.cpp");
  EXPECT_THAT(affected(kWorking), ElementsAre("alpha moved: One@7 moved [src/other.cpp:L2-L4] Two@11 moved "
                                              "[src/other.cpp:L8-L9]",
                                              "beta moved: @3 moved [src/other.cpp:L10]"));
  git("rm -q -f src/other.cpp");
  EXPECT_THAT(affected({.from = "HEAD", .to = Side::staged, .commit = {}}),
              ElementsAre("alpha stale: One@7 gone Two@11 gone", "beta stale: @3 gone"));
}

// The page was in doubt before: only what this change does to it counts.
TEST_F(AffectedTest, TellsThisChangeFromThoseBefore) {
  write_alpha(3);
  git("commit -q -a -m one");
  EXPECT_THAT(affected(kWorking), IsEmpty());
  write_alpha(3, 1);
  git("commit -q -a -m two");
  EXPECT_THAT(
      affected({.from = "HEAD~1", .to = Side::commit, .commit = "HEAD"}),
      ElementsAre("alpha stale: One@7 changed [src/alpha.cpp:L3-L5] Two@11 moved [src/alpha.cpp:L9-L10]",
                  "beta moved: @3 moved [src/alpha.cpp:L11]"));
  EXPECT_THAT(affected({.from = "HEAD~2", .to = Side::commit, .commit = "HEAD~1"}),
              ElementsAre("alpha stale: One@7 changed [src/alpha.cpp:L2-L4]"));
  EXPECT_THROW(affected({.from = "nope", .to = Side::working, .commit = {}}), utils::ConfigError);
}

TEST_F(AffectedTest, FindsWhoCitesLinesAsTheyAreNow) {
  EXPECT_THAT(cites("src/alpha.cpp", LineRange{4, 9}),
              ElementsAre("alpha src/alpha.cpp:L2-L4 same", "alpha src/alpha.cpp:L8-L9 same"));
  EXPECT_THAT(cites("src/alpha.cpp", LineRange{5, 7}), IsEmpty());
  EXPECT_THAT(cites("src"), ::testing::SizeIs(4));
  EXPECT_THAT(cites("sr"), IsEmpty());
  write_alpha(0, 2);
  EXPECT_THAT(cites("src/alpha.cpp", LineRange{4, 4}), ElementsAre("alpha src/alpha.cpp:L2-L4 moved"));
  git("mv src/alpha.cpp src/other.cpp");
  EXPECT_THAT(cites("src/other.cpp", LineRange{11, 12}),
              ElementsAre("alpha src/alpha.cpp:L8-L9 moved", "beta src/alpha.cpp:L10 moved"));
}

}  // namespace
}  // namespace ossilar::workers::wiki
