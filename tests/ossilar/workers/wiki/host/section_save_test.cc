// Saves of one section: onto a version while others save the rest, and with a place.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/workers/wiki/finalize.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ::ossilar::testing::error_of;
using ::ossilar::testing::is_saved;
using ::ossilar::testing::save_page;
using ::ossilar::testing::WikiRepo;
using ::testing::HasSubstr;
using Strings = std::vector<std::string>;

constexpr const char* kNewOne = "Said anew [src/alpha.cpp:L5].";

class SectionSaves : public ::testing::Test {
 protected:
  SectionSaves() { save({.content = WikiRepo::text_about("alpha") + "\n## Three\n\nThird.\n"}); }
  Answer save(SaveRequest request) {
    request.page_id = "alpha";
    return save_page(*wiki_, request).answer;
  }
  std::string version() { return std::get<StoredPage>(WikiReader(*wiki_).read_page("alpha")).version; }
  std::string text() { return split_authored(repo_.page("alpha"), "").text(); }
  Strings headings() { return section_headings(text()); }

  WikiRepo repo_;
  std::unique_ptr<Wiki> wiki_ = repo_.open();
};

// What another does between one's reading and one's saving of the section Two.
struct Meanwhile {
  const char* why;
  SaveRequest request;
  bool is_in_the_way;
};

TEST_F(SectionSaves, OntoAVersionJudgeThatSectionAndTheHeadings) {
  const std::vector<Meanwhile> table{
      {"nothing", {}, false},
      {"another section", {.content = kNewOne, .section = "One"}, false},
      {"what is above all sections", {.content = "New.\n" + text().substr(text().find("\n## One"))}, false},
      {"that section", {.content = "Other [src/alpha.cpp:L9].", .section = "Two"}, true},
      {"a new section", {.content = "More.", .section = "Four", .place = "last"}, true},
      {"a removal", {.section = "Three", .place = "remove"}, true},
      {"another section gets sections of its own",
       {.content = kNewOne + std::string("\n## A\n"), .section = "One"},
       true},
  };
  const std::string first = text();
  for (const bool is_reopened : {false, true}) {  // a process that has handed no text out knows the outlines
    for (const auto& [why, request, is_in_the_way] : table) {
      ASSERT_TRUE(is_saved(save({.content = first}))) << why;
      const std::string read = version();
      if (!request.content.empty() || request.place) {
        ASSERT_TRUE(is_saved(save(request))) << why;
      }
      if (is_reopened) wiki_ = repo_.open();
      const std::string before = text();
      const Answer answer =
          save({.content = "Mine [src/alpha.cpp:L7].", .section = "two", .if_version = read});
      EXPECT_EQ(is_saved(answer), !is_in_the_way) << why << answer;
      if (is_in_the_way) {
        EXPECT_EQ(text(), before) << why;
        continue;
      }
      EXPECT_EQ(answer.at("version"), Map(version())) << why;
      std::string wanted = before;
      const std::string old = "Second [src/alpha.cpp:L4].";
      EXPECT_EQ(text(), wanted.replace(wanted.find(old), old.size(), "Mine [src/alpha.cpp:L7].")) << why;
    }
  }
}

TEST_F(SectionSaves, OntoAVersionThatNobodyKnowsOrWithATitleAreRefused) {
  const std::string read = version();
  EXPECT_FALSE(is_saved(save({.content = "x", .section = "Two", .if_version = "0123456789abcdef"})));
  ASSERT_TRUE(is_saved(save({.content = kNewOne, .section = "One"})));
  const Answer titled =
      save({.content = "Mine [src/alpha.cpp:L7].", .section = "Two", .title = "Alef", .if_version = read});
  EXPECT_THAT(error_of(titled), HasSubstr("changed since version")) << "a title is the whole page's";
}

// The row keeps outlines of so many versions; an author who has read an older one is refused as ever.
TEST_F(SectionSaves, OntoAVersionLongGoneAreRefusedByAProcessThatHasNotReadIt) {
  const std::string late = version();
  for (int i = 0; i < 20; ++i) save({.content = "Round " + std::to_string(i), .section = "Three"});
  wiki_ = repo_.open();
  EXPECT_FALSE(is_saved(save({.content = kNewOne, .section = "One", .if_version = late})));
}

TEST_F(SectionSaves, AddAndRemoveSectionsByPlace) {
  const std::string before = text();
  EXPECT_TRUE(
      is_saved(save({.content = "Fourth [src/alpha.cpp:L8].", .section = "## Four", .place = "after: one"})));
  EXPECT_EQ(headings(), (Strings{"One", "Four", "Two", "Three"}));
  EXPECT_THAT(text(), HasSubstr("\n\n## Four\n\nFourth [src/alpha.cpp:L8].\n\n## Two\n"));
  EXPECT_TRUE(is_saved(save({.content = "## Five\n\nFifth.", .section = "Five", .place = "last"})));
  EXPECT_EQ(headings(), (Strings{"One", "Four", "Two", "Three", "Five"}));
  for (const char* heading : {"four", "Five"})
    EXPECT_TRUE(is_saved(save({.section = heading, .place = "remove"}))) << heading;
  EXPECT_EQ(text(), before + "\n") << "but for the line between Three and Five";
}

TEST_F(SectionSaves, RefuseAPlaceThatIsNone) {
  const Map headings{"One", "Two", "Three"};
  const Answer unknown = save({.content = "x", .section = "Four", .place = "after: Seven"});
  EXPECT_EQ(error_of(unknown), "page 'alpha' has no section 'Seven'");
  EXPECT_EQ(unknown.at("sections"), headings);
  const Answer twin = save({.content = "x", .section = "TWO", .place = "last"});
  EXPECT_THAT(error_of(twin), HasSubstr("has a section 'TWO' already"));
  EXPECT_EQ(save({.section = "Seven", .place = "remove"}).at("sections"), headings);
  const Answer last = save({.section = "One", .place = "remove"});
  EXPECT_THAT(error_of(last), HasSubstr("at least 2 required")) << "what is left is judged as any page";
  EXPECT_EQ(error_of(save({.content = " ", .section = "Two"})), "content is required");
}

}  // namespace
}  // namespace ossilar::workers::wiki
