#include "ossilar/cli/annotations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ossilar::cli {
namespace {

using ::testing::HasSubstr;

Map affected_by(const Map& claim) {
  return {{"pages",
           Map::array({{{"page_id", "a,b"}, {"rel_path", "pages/a.md"}, {"claims", Map::array({claim})}}})}};
}

Map claim(const std::string& state, const std::string& now, const std::string& sentence) {
  Map made{
      {"section", "One"}, {"citation", "x.cc:L1"}, {"state", state}, {"sentence", sentence}, {"line", 7}};
  if (!now.empty()) made["now"] = now;
  return made;
}

TEST(AnnotationsTest, GithubGetsOneCommandForEachClaim) {
  struct Case {
    const char* why;
    Map claim;
    const char* wanted;
  };
  for (const auto& [why, given, wanted] :
       {Case{"a changed claim warns at the lines in its place", claim("changed", "x.cc:L3-L4", "It does."),
             "::warning file=x.cc,line=3,endLine=4,title=wiki page a%2Cb::this changes what "
             "wiki/pages/a.md:7 cites "
             "in 'One': It does.\n"},
        Case{"a moved one is only noted", claim("moved", "x.cc:L3", "It does."),
             "::notice file=x.cc,line=3,endLine=3"},
        Case{"one that is gone is shown at its sentence", claim("gone", "", "It does."),
             "::warning file=wiki/pages/a.md,line=7,endLine=7"},
        Case{"no sentence ends a command", claim("gone", "", "50% \n::error::x"), "50%25 "}}) {
    const std::string shown = github_annotations(affected_by(given), "wiki");
    EXPECT_THAT(shown, HasSubstr(wanted)) << why;
    EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 1) << why;
  }
}

TEST(AnnotationsTest, GitlabTellsFindingsApartAndKnowsThemAgain) {
  const auto report = [](const Map& given) {
    return Map::parse(gitlab_annotations(affected_by(given), "wiki")).at(0);
  };
  const Map changed = report(claim("changed", "x.cc:L3-L4", "It does."));
  EXPECT_EQ(changed.at("location").at("lines").at("begin"), 3);
  EXPECT_EQ(changed.at("severity"), "major");
  EXPECT_EQ(report(claim("moved", "x.cc:L3-L4", "It does.")).at("severity"), "info");
  EXPECT_EQ(report(claim("changed", "x.cc:L9", "It does.")).at("fingerprint"), changed.at("fingerprint"));
  EXPECT_NE(report(claim("changed", "x.cc:L3", "Else.")).at("fingerprint"), changed.at("fingerprint"));
}

}  // namespace
}  // namespace ossilar::cli
