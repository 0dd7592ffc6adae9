#include "ossilar/workers/wiki/citations.h"

#include <gmock/gmock.h>

#include "support/markdown_corpus.h"
#include "support/wiki_texts.h"

namespace ossilar::workers::wiki {
namespace {

using ::ossilar::testing::brackets_of;
using ::ossilar::testing::cited_tree;
using ::testing::HasSubstr;
using Targets = std::vector<std::pair<std::string, std::string>>;

TEST(ParseCitation, TakesOneForm) {
  const auto max = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(parse_citation("a.cc:L1"), (Citation{"a.cc", 1, 1}));
  EXPECT_EQ(parse_citation("dir/a:Lx:L30-L4"), (Citation{"dir/a:Lx", 30, 4}))
      << "the form is right, the lines are not";
  EXPECT_EQ(parse_citation("a.cc:L99999999999999999999"), (Citation{"a.cc", max, max}));
  for (const char* label :
       {":L1", "a.cc", "a.cc:L", "a.cc:1", "a.cc:L-1", "a.cc:L+1", "a.cc:L1-", "a.cc:L1-2", "a.cc:L1-L",
        "a.cc:L1-L2x", "a.cc:L1,L2", "a.cc:L1 -L2", "a.cc:L 1", "a.cc#L1"}) {
    EXPECT_EQ(parse_citation(label), std::nullopt) << label;
  }
}

std::string meaning(const Brackets& brackets) {
  std::string out;
  for (const Citation& citation : brackets.valid) {
    out += " " + citation.path + ":" + std::to_string(citation.first) + "-" + std::to_string(citation.last);
  }
  for (const std::string& label : brackets.invalid) out += " !" + label;
  for (const std::string& label : brackets.malformed) out += " ?" + label;
  for (const auto& [label, page_id] : brackets.page_labels) out += " >" + label;
  return out.empty() ? out : out.substr(1);
}

TEST(ReadBrackets, CountsWhatARendererLinks) {
  for (const auto& [text, meant] : ::ossilar::testing::text_cases("citations.txt")) {
    EXPECT_EQ(meaning(brackets_of(text)), meant) << text;
  }
}

TEST(Warnings, SuggestOnlyLinesThatExist) {
  using Row = std::pair<const char*, const char*>;
  for (const auto& [label, says] :
       {Row("src/a.cc:L39-L99", "has lines 1 to 40"), Row("src/a.cc:L0", "has lines 1 to 40"),
        Row("src/a.cc:L20-L10", "last line comes before the first"),
        Row("src/a.cc:L99999999999999999999", "has lines 1 to 40"),
        Row("old/er/util.cc:L2-L3", "did you mean [deep/er/util.cc:L2-L3]?"),
        Row("./src/a.cc:L3", "did you mean [src/a.cc:L3]?"),
        Row("my/void/empty.cc:L9", "did you mean other/empty.cc?"),
        Row("src/utill.cc:L2", "did you mean [deep/er/util.cc:L2]?"),
        Row("src/a.cpp:L3", "did you mean [src/a.cc:L3]?")}) {
    EXPECT_THAT(invalid_citation_warning(label, cited_tree()), HasSubstr(says)) << label;
  }
  for (const char* label : {"none.cc:L1", "b.cc:L1", "void/empty.cc:L1", "logo.png:L1", "src/a.cc:L39-L99"}) {
    EXPECT_THAT(invalid_citation_warning(label, cited_tree()), ::testing::Not(HasSubstr("did you mean")))
        << label;
  }
  EXPECT_THAT(malformed_citation_warning("src/a.cc:10-20"), HasSubstr("write [src/a.cc:L10-L20]"));
  EXPECT_THAT(malformed_citation_warning("src/a.cc#L10"), HasSubstr("write [src/a.cc:L10]"));
}

TEST(ReadBrackets, NamesWhatReadsLikeATitleAndIsNone) {
  for (const auto& [text, unknown] : std::vector<std::pair<const char*, std::vector<std::string>>>{
           {"[Overveiw], [No such page] and [Overveiw]", {"Overveiw", "No such page"}},
           {"[x] [1] [a, b] [Ab] [note] [The](u) `[Code]` [Other page]", {}},
           {"[Mine] and [text][Mine]\n\n[Mine]: http://a", {}},
           {"[Text][Nobody's]", {"Nobody's"}}})
    EXPECT_EQ(brackets_of(text).unknown, unknown) << text;
}

TEST(PageLinks, LeadFromThePageFile) {
  const Brackets brackets = brackets_of("[src/a.cc:L1-L2] [docs/漢 字.md:L1] [Other page] [src/A.cc:L1]");
  EXPECT_EQ(page_links(brackets, "mine", "wiki").targets,
            (Targets{{"src/a.cc:L1-L2", "../../src/a.cc#L1-L2"},
                     {"docs/漢 字.md:L1", "../../docs/%E6%BC%A2%20%E5%AD%97.md#L1"},
                     {"Other page", "parts/other.md"}}));
  EXPECT_EQ(page_links(brackets_of("[src/a.cc:L1] [Other page]"), "a/b/c", "docs/wiki").targets,
            (Targets{{"src/a.cc:L1", "../../../../../src/a.cc#L1"}, {"Other page", "../../parts/other.md"}}));
  // The renderer takes both for one label, so neither gets a link.
  EXPECT_EQ(page_links(brackets_of("[lib/Case.cc:L1] [lib/case.cc:L1]"), "mine", "wiki").targets, Targets{});
}

}  // namespace
}  // namespace ossilar::workers::wiki
