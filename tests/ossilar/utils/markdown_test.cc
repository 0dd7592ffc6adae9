#include "ossilar/utils/markdown.h"

#include <gtest/gtest.h>

#include <array>

#include "ossilar/utils/fold.h"
#include "support/markdown_corpus.h"

namespace ossilar::utils {
namespace {

// The blocks of `text`, headings with their level, text and the bytes of their lines: "h2 A[0-5]|code|other".
std::string blocks_of(std::string_view text) {
  std::string out;
  for (const Block& block : top_level_blocks(text)) {
    const std::string marks = "[" + std::to_string(block.begin) + "-" + std::to_string(block.marks_end) + "]";
    const std::array<std::string, 4> kinds{"h" + std::to_string(block.level) + " " + block.text + marks,
                                           "code", "html", "other"};
    out += (out.empty() ? "" : "|") + kinds.at(static_cast<std::size_t>(block.kind));
  }
  return out;
}

TEST(TopLevelBlocks, AreWhatCommonMarkReads) {
  auto cases = ::ossilar::testing::text_cases("blocks.txt");
  cases.emplace_back("no last newline\n\n## B", "other|h2 B[17-21]");
  cases.emplace_back("A\n===", "h1 A[0-5]");
  cases.emplace_back("# A\r\n\r\ntext\r\n## B\r\n", "h1 A[0-5]|other|h2 B[13-19]");
  cases.emplace_back("A\r\n---\r\nB", "h2 A[0-8]|other");
  cases.emplace_back("# lone CR\rtext\r## B", "h1 lone CR[0-10]|other|h2 B[15-19]");
  cases.emplace_back("\xEF\xBB\xBF## a byte order mark is text\n", "other");
  for (const auto& [text, blocks] : cases) EXPECT_EQ(blocks_of(text), blocks) << text;
}

TEST(TopLevelBlocks, FollowEachOtherWithoutGaps) {
  for (const std::string& text : ::ossilar::testing::markdown_corpus(300)) {
    const std::vector<Block> blocks = top_level_blocks(text);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      ASSERT_EQ(blocks[i].end, i + 1 < blocks.size() ? blocks[i + 1].begin : text.size()) << text;
      ASSERT_LE(blocks[i].marks_end, blocks[i].end) << text;
      // A heading cut out of the text is that heading still, and nothing more.
      const auto marks = text.substr(blocks[i].begin, blocks[i].marks_end - blocks[i].begin);
      ASSERT_EQ(top_level_blocks(marks).size(), blocks[i].kind == BlockKind::heading ? 1 : 0) << text;
    }
  }
}

TEST(ClosingLine, LetsWhatFollowsStandAtTheTopLevel) {
  std::vector<std::string> texts = ::ossilar::testing::markdown_corpus(500);
  for (const char* open : {"```\nx", "`````` c++\n```", "~~~", "   ~~~~\n x\n", "<!-- x", "<?x", "<!X",
                           "<![CDATA[ x", "<pre>", "<script>\n\nx", "<style>"}) {
    EXPECT_NE(closing_line(open), "") << open;
    texts.emplace_back(open);
  }
  for (const char* closed :
       {"", "text", "```\nx\n```", "- ```\n  x", "> ```", "<div>", "<!-- x -->", "    code"}) {
    EXPECT_EQ(closing_line(closed), "") << closed;
  }
  for (const std::string& text : texts) {
    const std::string whole = text + "\n" + closing_line(text) + "\n\n<!-- marker -->";
    ASSERT_EQ(whole.substr(top_level_blocks(whole).back().begin), "<!-- marker -->") << text;
  }
}

TEST(Inlines, ArePlainText) {
  EXPECT_EQ(
      prose_text("# A *b*\n\nc\nd `e` ![i](j) <b>f</b>\n\n- g\n\n> [h](k)\n\n```\nx\n```\n<div>y</div>\n"),
      "A b\nc d e i f\ng\nh\n");
  EXPECT_EQ(plain_inline("*a* `b`\nc #"), "a b c") << "read like a heading, whose closing marks are no text";
  std::string urls;
  for (const Link& link : links("[a](u) ![i](v) `[c](w)` <http://x> [*d*]\n\n[d]: no\n[*d*]: y")) {
    urls += link.text + "=" + link.url + " ";
  }
  EXPECT_EQ(urls, "a=u http://x=http://x d=y ");
}

// Results of one text are never returned for another, in whatever order the texts come again.
TEST(Inlines, CachedResultsBelongToTheirOwnText) {
  const auto all_of = [](const std::string& text) {
    std::string all = prose_text(text) + "|" + closing_line(text) + "|" + plain_inline(text);
    for (const Block& block : top_level_blocks(text)) all += "|" + block.text + std::to_string(block.begin);
    for (const Link& link : links(text)) all += "|" + link.url + link.text;
    return all;
  };
  const std::vector<std::string> texts = ::ossilar::testing::generated_pages(40);
  std::vector<std::string> first;
  for (const std::string& text : texts) first.push_back(all_of(text));
  for (std::size_t step = 1; step < 8; ++step) {
    for (std::size_t i = 0; i < 200; ++i) {
      const std::size_t at = i * step / 3 % texts.size();
      ASSERT_EQ(all_of(texts[at]), first[at]) << texts[at];
    }
  }
  EXPECT_NE(prose_text(std::string(40'000, 'a')), prose_text(std::string(40'000, 'b')));
}

// Two labels have the same fold_label() exactly when the parser takes them for one.
TEST(FoldLabel, AgreesWithTheParser) {
  using Pair = std::pair<const char*, const char*>;
  for (const auto& [a, b] :
       {Pair("Straße", "STRASSE"), Pair("ΣΊΣ", "σίς"), Pair("ǰ", "J\u030C"), Pair("Ꭰ", "ꭰ"), Pair("𐐀", "𐐨"),
        Pair("İ", "i\u0307"), Pair("a\u00A0b", "a b"), Pair("a\fb", "a b"), Pair("a\n\tb", "A B"),
        Pair("Café", "Cafe\u0301"), Pair("a.c", "a_c")}) {
    const std::string text = "[" + std::string(a) + "]\n\n[" + b + "]: /u\n";
    EXPECT_EQ(links(text).size() == 1, fold_label(a) == fold_label(b)) << a << " " << b;
  }
}

}  // namespace
}  // namespace ossilar::utils
