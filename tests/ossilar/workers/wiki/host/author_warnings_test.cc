#include "ossilar/workers/wiki/host/author_warnings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/workers/wiki/asking/text_check.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::WikiRepo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string sections(std::initializer_list<const char*> headings) {
  std::string text = "About.\n";
  for (const char* heading : headings) text += std::string("\n## ") + heading + "\n\nText.\n";
  return text;
}

TEST(AuthorWarningsTest, TellOfALossOfMostOnly) {
  const std::string four = sections({"One", "Two", "Three", "Four"});
  for (const auto& [why, now, cited_before, cited_now, wanted] :
       {std::tuple("nothing", four, 9, 9, ""),
        {"half of each", sections({"One", "Two"}), 8, 4, ""},
        {"few citations", four, 3, 1, ""},
        {"citations", four, 13, 3, "had 13 citations before this save and has 3"},
        {"sections", sections({"ONE", "Other"}), 4, 4, "'Two', 'Three', 'Four'"}}) {
    const auto warnings = loss_warnings({.before = four,
                                         .now = now,
                                         .cited_before = static_cast<std::size_t>(cited_before),
                                         .cited_now = static_cast<std::size_t>(cited_now)});
    if (*wanted == '\0') {
      EXPECT_THAT(warnings, IsEmpty()) << why;
    } else {
      EXPECT_THAT(warnings, ElementsAre(HasSubstr(wanted))) << why;
    }
  }
}

TEST(AuthorWarningsTest, NameTwinHeadingsOnce) {
  EXPECT_THAT(twin_warnings(sections({"One", "Two", " one ", "ONE"})), ElementsAre(HasSubstr("'one'")));
  EXPECT_THAT(twin_warnings(sections({"One", "Two"})), IsEmpty());
}

TEST(TextCheckTest, QuotesWhatIsCitedAndNamesWhatIsMeant) {
  const WikiRepo repo;
  repo.dir.write("src/gap.cpp", "\n  // first words\n}\n");
  const auto wiki = repo.open();
  const TextCheck check = check_text(*wiki, "alpha",
                                     "See [src/gap.cpp:L1-L2], [src/gap.cpp:L3], [src/alpha.cpp:L99], "
                                     "[src/alpa.cpp:L2] and [Betta], not [Beta].\n");
  std::vector<std::string> cited;
  for (const QuotedCitation& each : check.cited) cited.push_back(each.label + " " + each.line);
  EXPECT_THAT(cited, ElementsAre("src/gap.cpp:L1-L2 // first words", "src/gap.cpp:L3 "));
  EXPECT_THAT(check.faults,
              ElementsAre(HasSubstr("lines 1 to 10"), HasSubstr("did you mean [src/alpha.cpp:L2]?"),
                          HasSubstr("no evidence"), HasSubstr("did you mean [Beta]?")));
}

}  // namespace
}  // namespace ossilar::workers::wiki
