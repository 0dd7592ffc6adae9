// What holds for every text: the laws of finalize.h and sections.h, on the examples of the CommonMark Spec
// and on generated pages. What a page says is read here with the parser itself.
#include <gmock/gmock.h>

#include <random>

#include "ossilar/utils/fold.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/sections.h"
#include "support/markdown_corpus.h"
#include "support/rendered.h"
#include "support/wiki_texts.h"

namespace ossilar::workers::wiki {
namespace {

using ::ossilar::testing::bare;
using ::ossilar::testing::brackets_of;
using ::ossilar::testing::markdown_corpus;
using ::ossilar::testing::Rendered;
using ::ossilar::testing::rendered;
using ::ossilar::testing::saved;
using Strings = std::vector<std::string>;

Strings marked(const std::string& mark, Strings texts) {
  for (std::string& text : texts) text = bare(text).insert(0, mark);
  return texts;
}

// The headings of level 1 and 2 in `count` lines of `text` from `first` on, with their distance from there.
Strings headings_in(const std::string& text, std::size_t first, std::size_t count) {
  Strings out;
  for (const auto& [line, heading] : rendered("\n" + text).headings) {
    const std::size_t at = line - 2;
    if (heading.find(' ') < 3 && at >= first && at < first + count)
      out.push_back(std::to_string(at - first) + heading);
  }
  return out;
}

Strings texts() {
  Strings all = markdown_corpus(1500);
  for (const char* text : {"", "\n", "\n\n  \ntext", "# T", "# T\n\n\n\ntext\n\n\n", "#\n# \ntext",
                           "\xEF\xBB\xBF# T\n## A", "- a\n\n## B\n\nx\n\n   ## C"}) {
    all.emplace_back(text);
  }
  return all;
}

TEST(SavingLaw, TakenOutAndSavedAgainGivesTheSameFile) {
  for (const std::string& text : texts()) {
    const std::string page = saved(text).markdown;
    const std::string authored = authored_text(text);
    ASSERT_EQ(split_authored(page, "").text(), authored) << text;
    ASSERT_EQ(saved(authored).markdown, page) << text;
    ASSERT_EQ(saved(page).markdown, page) << "the whole page handed in: " << text;
    const std::string framed = "\n\n" + authored + "\n" + std::string(kGeneratedMarker) + "\n";
    ASSERT_EQ(page.compare(page.find('\n'), framed.size(), framed), 0) << text;
  }
}

TEST(SavingLaw, NothingButTitlesIsTakenOff) {
  for (const std::string& text : texts()) {
    const std::string authored = authored_text(text);
    std::string whole = utils::normalise_line_ends(text);
    if (whole.find(kGeneratedMarker) != std::string::npos) continue;  // may be cut there
    if (!authored.empty() && whole.back() != '\n') whole += '\n';
    ASSERT_TRUE(whole.ends_with(authored)) << text;
    const std::string off = whole.substr(0, whole.size() - authored.size());
    Strings titles;
    for (const auto& [line, heading] : rendered("\n" + off).headings) titles.push_back(heading);
    ASSERT_EQ(titles, marked("# ", leading_titles(text))) << text;
    ASSERT_EQ(titles.empty(), off.empty()) << text;
    ASSERT_THAT(rendered("\n" + off + "\n\n[foo]").urls, ::testing::IsEmpty())
        << "a link definition went: " << text;
  }
}

TEST(SavingLaw, ThePageReadsAsTheAuthorsTextAlone) {
  for (const std::string& text : texts()) {
    const FinalizedPage page = saved(text);
    const Rendered seen = rendered(page.markdown);
    ASSERT_EQ(seen.headings.front().second, "# A *fine* title #") << text;
    Strings headings;
    for (const auto& [line, heading] : seen.headings) {
      if (heading.starts_with("## ")) headings.push_back(heading);
    }
    ASSERT_EQ(headings, marked("## ", page.outline)) << text;
    ASSERT_EQ(page.outline, section_headings(page.markdown)) << text;
    // What counts as a citation is what a reader sees as a link to its lines.
    std::set<std::string> counted;
    for (const auto& [label, url] :
         page_links(brackets_of(authored_text(text)), "parts/mine", "wiki").targets) {
      if (parse_citation(label)) counted.insert(url);
    }
    std::set<std::string> linked = seen.urls;
    std::erase_if(linked, [](const std::string& url) { return !url.starts_with("../../../"); });
    ASSERT_EQ(linked, counted) << text;
  }
}

// The marker is a comment and ends an open one: a second "-->" would be visible.
TEST(SavingLaw, ClosesABlockOnce) {
  EXPECT_EQ(saved("<!-- open").markdown.find("-->\n-->"), std::string::npos);
  EXPECT_NE(saved("<pre>open").markdown.find("-->\n</pre>\n<!--"), std::string::npos);
}

TEST(SectionLaw, ASectionReplacedByItselfIsTheSameText) {
  for (const std::string& text : texts()) {
    for (const std::string& body : {authored_text(text), std::string(utils::strip(authored_text(text)))}) {
      for (const std::string& heading : section_headings(body)) {
        ASSERT_EQ(replace_section(body, heading, section_text(body, heading).value()), body) << heading;
      }
    }
  }
}

TEST(SectionLaw, NothingOutsideTheSectionChanges) {
  Strings replacements = ::ossilar::testing::generated_pages(100, 6);
  for (const char* text : {"", "- item", "- ```\n  open", "```\nopen", "<!-- open", "<pre>", "<div>", "---",
                           "[foo]:", "x\n\n<!-- ossilar:generated -->\ny"}) {
    replacements.emplace_back(text);
  }
  std::mt19937 random(1);
  for (const std::string& text : texts()) {
    const std::string body = authored_text(text);
    std::set<std::string> seen;
    for (const Section& section : sections_of(body)) {
      if (!seen.insert(section.heading).second) continue;  // a name means its first section
      std::string replacement = replacements[random() % replacements.size()];
      if (random() % 3 == 0) replacement.insert(0, "## " + section.heading + "\n");
      const std::string result = replace_section(body, section.heading, replacement).value();
      SCOPED_TRACE(::testing::Message() << "body:\n"
                                        << body << "\nsection: " << section.heading << "\nresult:\n"
                                        << result);

      const auto begin = static_cast<std::size_t>(section.text.data() - body.data());
      const std::string before = body.substr(0, begin);
      const std::string after = body.substr(begin + section.text.size());
      ASSERT_TRUE(result.starts_with(before + std::string(section.text.substr(0, section.below))));
      ASSERT_TRUE(result.ends_with(after));
      const std::size_t above = utils::count_lines(before) + 1;  // the section's own heading too
      ASSERT_EQ(headings_in(result, 0, above), headings_in(body, 0, above));
      const std::size_t below = utils::count_lines(after);
      ASSERT_EQ(headings_in(result, utils::count_lines(result) - below, below),
                headings_in(body, utils::count_lines(body) - below, below));
      ASSERT_EQ(authored_text(result), result) << "a save takes something off";
    }
  }
}

// A section that is added stands where it was asked for, whatever is open there, and is gone without a trace
// of its own when it is removed; the headings around it stay in both cases.
TEST(SectionLaw, AnAddedSectionIsOneAndCanBeRemoved) {
  for (const std::string& text : texts()) {
    const std::string body = authored_text(text);
    const Strings headings = section_headings(body);
    if (std::count(headings.begin(), headings.end(), "Added") > 0) continue;
    for (std::size_t i = 0; i <= headings.size(); ++i) {
      const bool is_last = i == headings.size();
      if (!is_last && section_number(sections_of(body), headings[i]) != i) continue;  // a twin
      const std::string added =
          add_section(body, "Added", "```\nopen\n", is_last ? std::nullopt : std::optional(headings[i]))
              .value();
      Strings wanted = headings;
      wanted.insert(wanted.begin() + static_cast<std::ptrdiff_t>(is_last ? i : i + 1), "Added");
      ASSERT_EQ(section_headings(added), wanted) << "body:\n" << body << "\nadded:\n" << added;
      ASSERT_EQ(section_headings(remove_section(added, "Added").value()), headings) << added;
    }
  }
}

TEST(Pathological, TextsAreReadToTheirEnd) {
  for (const char* unit :
       {"[", ">", "`", "*a ", "x", "[src/a.cc:L1", "+ ", "```\n<!-- ossilar:generated -->\n```\n"}) {
    std::string text;
    while (text.size() < (std::size_t{1} << 16U)) text += unit;
    EXPECT_EQ(split_authored(saved(text).markdown, "").text(), text + (text.back() == '\n' ? "" : "\n"))
        << unit;
  }
  std::string citations;
  for (int i = 1; i <= 60'000; ++i) citations += "[src/a.cc:L" + std::to_string(i) + "]\n";
  const Brackets brackets = brackets_of(citations);
  EXPECT_EQ(brackets.valid.size(), 40);
  EXPECT_EQ(brackets.invalid.size(), 59'960);
}

}  // namespace
}  // namespace ossilar::workers::wiki
