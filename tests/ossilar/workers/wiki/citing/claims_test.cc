#include "ossilar/workers/wiki/citing/claims.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "ossilar/utils/hash.h"

namespace ossilar::workers::wiki {
namespace {

using Strings = std::vector<std::string>;

// The citations that count in these tests.
std::vector<Citation> valid() {
  return {{"a.cc", 1, 1}, {"a.cc", 2, 4}, {"a.cc", 3, 3}, {"a.cc", 20, 40}, {"b.cc", 5, 6}};
}

std::vector<Claim> claims(const std::string& text) { return claims_in(text, valid()); }

Strings sentences(const std::string& text) {
  Strings found;
  for (const Claim& claim : claims(text)) found.push_back(sentence_of(text, claim));
  return found;
}

struct SentenceCase {
  const char* what;
  const char* text;
  Strings sentences;  // of each claim
};

TEST(ClaimsTest, StandInTheSentenceThatTheySupport) {
  const std::vector<SentenceCase> cases{
      {"one sentence", "It runs [a.cc:L1].", {"It runs [a.cc:L1]."}},
      {"the second of three", "First. It runs [a.cc:L1]. Third.", {"It runs [a.cc:L1]."}},
      {"behind the full stop", "First. It runs. [a.cc:L1] Third.", {"It runs. [a.cc:L1]"}},
      {"two behind the full stop",
       "It runs. [a.cc:L1] [b.cc:L5-L6] Third.",
       {"It runs. [a.cc:L1] [b.cc:L5-L6]", "It runs. [a.cc:L1] [b.cc:L5-L6]"}},
      {"several in one sentence",
       "It [a.cc:L1] runs [b.cc:L5-L6] here. Next.",
       {"It [a.cc:L1] runs [b.cc:L5-L6] here.", "It [a.cc:L1] runs [b.cc:L5-L6] here."}},
      {"over two lines", "It\nruns [a.cc:L1]\nhere. Next.", {"It runs [a.cc:L1] here."}},
      {"a file's name is no end",
       "The file main.cc runs [a.cc:L1]. Next.",
       {"The file main.cc runs [a.cc:L1]."}},
      {"an abbreviation is no end",
       "Some, e.g. this, run [a.cc:L1]. Next.",
       {"Some, e.g. this, run [a.cc:L1]."}},
      {"in quotes", "She said \"it runs.\" Then it stops [a.cc:L1].", {"Then it stops [a.cc:L1]."}},
      {"a sentence that begins with code",
       "It runs [a.cc:L1]. `main` walks [a.cc:L3].",
       {"It runs [a.cc:L1].", "`main` walks [a.cc:L3]."}},
      {"marks that close behind a citation",
       "**It runs. [a.cc:L1]** *Then* it walks [a.cc:L3].",
       {"**It runs. [a.cc:L1]**", "*Then* it walks [a.cc:L3]."}},
      {"items of a list",
       "- one [a.cc:L1]\n- two [a.cc:L3]\n* three [b.cc:L5-L6]",
       {"- one [a.cc:L1]", "- two [a.cc:L3]", "* three [b.cc:L5-L6]"}},
      {"numbered items", "1. one [a.cc:L1]\n2) two [a.cc:L3]", {"1. one [a.cc:L1]", "2) two [a.cc:L3]"}},
      {"an item over two lines", "- one\n  more [a.cc:L1]\n- two", {"- one more [a.cc:L1]"}},
      {"rows of a table",
       "| a | b |\n|---|---|\n| x | runs [a.cc:L1] |\n| y | stops [a.cc:L3] |",
       {"| x | runs [a.cc:L1] |", "| y | stops [a.cc:L3] |"}},
      {"a heading", "## It runs [a.cc:L1]\nText [a.cc:L3].", {"## It runs [a.cc:L1]", "Text [a.cc:L3]."}},
      {"a block quote", "Text.\n> It runs [a.cc:L1].\n\nMore.", {"> It runs [a.cc:L1]."}},
      {"paragraphs", "One\n\ntwo [a.cc:L1]\n\nthree", {"two [a.cc:L1]"}},
      {"a text that only cites", "[a.cc:L1]", {"[a.cc:L1]"}},
      {"an open bracket",
       "An [open one. It runs [a.cc:L1]. Next.",
       {"An [open one. It runs [a.cc:L1]. Next."}},
  };
  for (const SentenceCase& row : cases) EXPECT_EQ(sentences(row.text), row.sentences) << row.what;
}

TEST(ClaimsTest, CodeAndOtherBracketsAreNone) {
  for (const char* text : {"`[a.cc:L1]`", "```\n[a.cc:L1]\n```", "    [a.cc:L1]", "\\[a.cc:L1]",
                           "<!-- [a.cc:L1] -->", "[a.cc:L2]", "[other.cc:L1]", "[a.cc]", "~~~\n[a.cc:L1]"}) {
    EXPECT_TRUE(claims(text).empty()) << text;
  }
  const std::string text = "`[a.cc:L1]` and [a.cc:L1]";
  ASSERT_EQ(claims(text).size(), 1U);
  EXPECT_EQ(claims(text).front().begin, text.rfind("a.cc"));
}

TEST(ClaimsTest, EachPlaceIsAClaimOfItsOwn) {
  const std::string text = "One [a.cc:L1]. Two [a.cc:L1].";
  const auto found = claims(text);
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].citation, found[1].citation);
  EXPECT_NE(found[0].says, found[1].says);
  for (const Claim& claim : found) EXPECT_EQ(text.substr(claim.begin, claim.end - claim.begin), "a.cc:L1");
}

TEST(ClaimsTest, StandBelowTheHeadingOfTheirSection) {
  Strings headings;
  for (const Claim& claim :
       claims("Above [a.cc:L1].\n\n## First part\n\nIt [a.cc:L1].\n\n### Deeper\n\nIt "
              "[a.cc:L3].\n\nSecond\n------\n\nIt [b.cc:L5-L6].\n\n# Title\n\nIt [a.cc:L1]."))
    headings.push_back(claim.heading);
  EXPECT_EQ(headings, (Strings{"", "First part", "First part", "Second", ""}));
}

TEST(ClaimsTest, WhatASentenceSaysDoesNotDependOnTheLines) {
  struct Pair {
    const char *one, *other;
    bool is_same;
  };
  const std::vector<Pair> cases{
      {"It runs [a.cc:L1].", "It runs [a.cc:L3].", true},
      {"It runs [a.cc:L1].", "It runs [a.cc:L20-L40].", true},
      {"It runs [a.cc:L1] [b.cc:L5-L6].", "It runs [a.cc:L2-L4] [a.cc:L1].", true},
      {"It runs [a.cc:L1].", "Other words. It runs [a.cc:L1].", true},
      {"It runs [a.cc:L1].", "It\n  runs [a.cc:L1].", true},
      {"It runs [a.cc:L1].", "It walks [a.cc:L1].", false},
      {"It runs [a.cc:L1].", "It runs [a.cc:L1] [a.cc:L3].", false},
      {"It takes 3 steps [a.cc:L1].", "It takes 4 steps [a.cc:L1].", false},
      {"It runs [a.cc:L1]. `a` walks.", "It runs [a.cc:L1]. The `a` walks.", true},
      {"See [this] [a.cc:L1].", "See [that] [a.cc:L1].", false},
  };
  for (const Pair& row : cases) {
    const auto says = [](const char* text) { return claims(text).at(0).says; };
    EXPECT_EQ(says(row.one) == says(row.other), row.is_same) << row.one << " / " << row.other;
  }
}

TEST(ClaimsTest, ALongSentenceIsShownAroundItsClaim) {
  std::string text;
  for (int i = 0; i < 500; ++i) text += "\xC3\xA4\xC3\xB6 word ";
  text += "here [a.cc:L1] now ";
  for (int i = 0; i < 500; ++i) text += "\xC3\xA4 more ";
  const std::string shown = sentences(text).at(0);
  EXPECT_LT(shown.size(), 600U);
  EXPECT_NE(shown.find("here [a.cc:L1] now"), std::string::npos);
  EXPECT_EQ(Map(shown).dump().find("\xEF\xBF\xBD"), std::string::npos) << "no character is cut in two";
}

TEST(ClaimsTest, NewLabelsChangeNothingElse) {
  const std::string text = "# T\r\n\r\nIt [a.cc:L1]  runs `[a.cc:L1]`.\n\n| [ a.cc:L3 ] | [a.cc:L1] |\n\xff";
  const auto found = claims(text);
  ASSERT_EQ(found.size(), 3U);
  EXPECT_EQ(with_labels(text, {}), text);
  EXPECT_EQ(with_labels(text, {{&found[0], "b.cc:L5-L6"}, {&found[2], "x"}}),
            "# T\r\n\r\nIt [b.cc:L5-L6]  runs `[a.cc:L1]`.\n\n| [ a.cc:L3 ] | [x] |\n\xff");
}

// A row of 1 MiB of citations: the time of work that grew with its square would be days.
TEST(ClaimsTest, ManyClaimsTakeLinearTime) {
  for (const std::string& piece : {std::string("[a.cc:L1] "), std::string("It runs [a.cc:L1]. "),
                                   std::string("- [a.cc:L1]\n"), std::string("## H\n\n[a.cc:L1]\n\n")}) {
    std::string text;
    std::size_t count = 0;
    for (; text.size() < (1U << 20U); ++count) text += piece;
    EXPECT_EQ(claims(text).size(), count) << piece;
  }
}

// ---- What is remembered.

KnownClaim known(const Citation& citation, const std::string& says = "") {
  KnownClaim claim{.citation = citation, .heading = "Part", .says = says, .print = {}};
  claim.print = {.text = "0123456789abcdef",
                 .bare = "1123456789abcdef",
                 .near = "^-aaaa-$",
                 .symbol = "ns::f",
                 .twins = 3,
                 .file = {"2123456789abcdef", std::string(40, 'b'), std::string(40, 'c')}};
  return claim;
}

Strings shown(const std::vector<KnownClaim>& claims) {
  Strings texts;
  for (const KnownClaim& claim : claims) texts.push_back(claim.citation.path + " " + claim_map(claim).dump());
  return texts;
}

struct StretchCase {
  const char* what;
  std::vector<Citation> citations;
  Strings stretches;  // the label of each, and how many claims it has
};

TEST(StretchesTest, OverlappingCitationsAreOne) {
  const std::vector<StretchCase> cases{
      {"none", {}, {}},
      {"one", {{"a", 1, 3}}, {"a:L1-L3 1"}},
      {"the same twice", {{"a", 1, 3}, {"a", 1, 3}}, {"a:L1-L3 2"}},
      {"one in the other", {{"a", 1, 9}, {"a", 3, 4}}, {"a:L1-L9 2"}},
      {"overlapping, the later first", {{"a", 3, 9}, {"a", 1, 4}}, {"a:L1-L9 2"}},
      {"sharing a line", {{"a", 1, 3}, {"a", 3, 5}}, {"a:L1-L5 2"}},
      {"side by side", {{"a", 1, 3}, {"a", 4, 5}}, {"a:L1-L3 1", "a:L4-L5 1"}},
      {"a chain", {{"a", 1, 3}, {"a", 5, 8}, {"a", 2, 6}}, {"a:L1-L8 3"}},
      {"a short one within a long one, and one behind it",
       {{"a", 1, 20}, {"a", 2, 3}, {"a", 15, 30}},
       {"a:L1-L30 3"}},
      {"different files", {{"b", 1, 3}, {"a", 1, 3}}, {"b:L1-L3 1", "a:L1-L3 1"}},
      {"in the order of their claims",
       {{"b", 9, 9}, {"a", 5, 5}, {"b", 1, 1}, {"a", 5, 6}},
       {"b:L9 1", "a:L5-L6 2", "b:L1 1"}},
  };
  for (const StretchCase& row : cases) {
    std::vector<KnownClaim> remembered;
    for (const Citation& citation : row.citations)
      remembered.push_back(known(citation, std::to_string(remembered.size())));
    const auto stretches = stretches_of(remembered);
    Strings found;
    for (const Map& stretch : stretches)
      found.push_back(citation_label(citation_of(stretch)) + " " +
                      std::to_string(stretch.at("claims").size()));
    EXPECT_EQ(found, row.stretches) << row.what;
    const auto again = claims_of(stretches);
    auto then = shown(remembered);
    auto now = shown(again);
    std::sort(then.begin(), then.end());
    std::sort(now.begin(), now.end());
    EXPECT_EQ(now, then) << row.what;
    EXPECT_EQ(Map(stretches_of(again)).dump(), Map(stretches).dump()) << row.what << ", there and back";
  }
}

TEST(StretchesTest, AClaimSurvivesAsARow) {
  const KnownClaim claim = known({"a.cc", 2, 4}, "12345678");
  const Map row{{"citations", Map(stretches_of({claim})).dump()}};
  const auto again = claims_of_row(row);
  ASSERT_EQ(again.size(), 1U);
  EXPECT_EQ(again[0].citation, claim.citation);
  EXPECT_EQ(again[0].heading, claim.heading);
  EXPECT_EQ(again[0].says, claim.says);
  EXPECT_EQ(again[0].print, claim.print);
}

TEST(StretchesTest, WhatSaysNothingTakesNoRoom) {
  EXPECT_EQ(claim_map({.citation = {"a.cc", 2, 4}, .heading = "", .says = "", .print = {}}),
            (Map{{"first", 2}, {"last", 4}}));
}

TEST(StretchesTest, RowsOfAnEarlierFormatAreRead) {
  const auto found = claims_of_row(Map{
      {"citations",
       R"([{"path":"a.cc","first":2,"last":4,"text_hash":"0123456789abcdef"},{"path":"b.cc","first":1,"last":1}])"}});
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].citation, (Citation{"a.cc", 2, 4}));
  EXPECT_EQ(found[0].print.text, "0123456789abcdef");
  EXPECT_TRUE(found[0].print.is_known());
  EXPECT_EQ(found[1].citation, (Citation{"b.cc", 1, 1}));
  EXPECT_FALSE(found[1].print.is_known());
}

// The mark that opens `main` belonged to the sentence before it once. What was saved then is still known.
TEST(KnownClaimsTest, AreFoundByASentenceAsItWasCutFormerly) {
  const auto now = claims("It runs [a.cc:L1]. `main` walks [a.cc:L3].");
  const Strings then{"It runs [:L]. `", "main` walks [:L]."};
  for (std::size_t i = 0; i < then.size(); ++i) {
    const std::string says = utils::sha256_hex(then[i]).substr(0, 8);
    EXPECT_NE(now.at(i).says, says);
    EXPECT_NE(KnownClaims({known(now[i].citation, says)}).find(now[i]), nullptr) << then[i];
  }
}

TEST(KnownClaimsTest, AreFoundBySentenceAndCitation) {
  const auto now = claims("It runs [a.cc:L1]. It walks [a.cc:L1]. It sits [a.cc:L3].");
  ASSERT_EQ(now.size(), 3U);
  const KnownClaims of_one({known(now[0].citation, now[0].says)});
  EXPECT_NE(of_one.find(now[0]), nullptr);
  EXPECT_EQ(of_one.find(now[1]), nullptr) << "the same lines, another sentence";
  EXPECT_EQ(of_one.find(now[2]), nullptr);
  const KnownClaims earlier({known(now[0].citation)});
  EXPECT_NE(earlier.find(now[0]), nullptr);
  EXPECT_NE(earlier.find(now[1]), nullptr) << "a claim of an earlier format is that of any sentence";
  EXPECT_EQ(earlier.find(now[2]), nullptr);
}

}  // namespace
}  // namespace ossilar::workers::wiki
