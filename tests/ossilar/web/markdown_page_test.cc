#include "ossilar/web/markdown_page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/utils/text.h"

namespace ossilar::web {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using workers::wiki::Citation;
using workers::wiki::CitationState;

source::SourceIndex index_of_files() {
  source::SourceFile file;
  file.path = "src/a.cc";
  file.lines = 100;
  return source::SourceIndex({std::make_shared<const source::SourceFile>(file)});
}

PageHtml rendered(const std::string& authored, const std::vector<CitationMark>& marks = {}) {
  const source::SourceIndex index = index_of_files();
  const auto brackets =
      workers::wiki::read_brackets(authored, index, [](std::string_view label) -> std::optional<std::string> {
        return label == "Other" ? std::optional<std::string>("other") : std::nullopt;
      });
  return page_html(authored, brackets, "page", "wiki", marks,
                   {.lines = [](const Citation& c) { return "S#" + workers::wiki::citation_label(c); },
                    .page = [](const std::string& id) { return "P/" + id; },
                    .relative = [](std::string_view target) { return "R/" + std::string(target); }});
}

CitationMark mark(std::int64_t first, CitationState state) {
  CitationMark made;
  made.citation = {"src/a.cc", first, first};
  made.state = state;
  made.says = "[src/a.cc] is <doubtful>";
  made.diff = "--- cited\n+++ now\n@@ -1,2 +1 @@\n-old <b>\n--- like a label\n+new\n";
  return made;
}

TEST(MarkdownPageTest, RendersWhatAuthorsWrite) {
  const struct {
    const char* markdown;
    const char* html;
    const char* why;
  } kRows[] = {
      {"See [src/a.cc:L1-L2].",
       "<a href=\"S#src/a.cc:L1-L2\" class=\"cite\" title=\"src/a.cc:L1-L2\">a.cc:L1-L2</a>.",
       "a citation is a chip with the file's name"},
      {"See [src/a.cc:L1-L200].", "See [src/a.cc:L1-L200].", "lines that are not there stay text"},
      {"`[src/a.cc:L1]`", "<code>[src/a.cc:L1]</code>", "code is no citation"},
      {"See [Other].", "<a class=\"page-link\" href=\"P/other\">Other</a>", "a title"},
      {"[x](../y.md)", "href=\"R/../y.md\"", "a relative link is asked for"},
      {"[x](https://e.org/a?b&c)", "href=\"https://e.org/a?b&amp;c\" rel=\"noopener noreferrer\"",
       "another site"},
      {"## A *b*", "<h2 id=\"s-a-b\">\nA <em>b</em>\n <a class=\"anchor\" href=\"#s-a-b\"",
       "headings have ids"},
      {"# One\n\n##### Deep", "<h3 id=\"s-deep\">", "no level is left out, and the title alone is the first"},
      {"| a |\n|--:|\n| [Other] |", "<td class=\"right\">\n<a class=\"page-link\" href=\"P/other\">",
       "links in tables"},
      {"| a |\n|---|\n| b |", "<div class=\"table-scroll\" tabindex=\"0\"", "tables scroll"},
      {"~~x~~ www.e.org", "<del>x</del> <a class=\"external\" href=\"http://www.e.org\"",
       "as forges read it"},
      {"```c++ x\na < b\n```", "<pre class=\"code\" tabindex=\"0\"><code class=\"language-c++\">a &lt; b",
       "code"},
      {"![alt](https://e.org/i.png)",
       "<a class=\"external\" rel=\"noopener noreferrer\" href=\"https://e.org/i.png\">alt</a>",
       "an image is a link"},
      {"[![in](https://e.org/i.png)](https://e.org)", ">in</a>", "an image in a link is its text"},
      {"```\nnever closed [src/a.cc:L1]", "never closed [src/a.cc:L1]", "open code swallows no definitions"},
  };
  for (const auto& row : kRows) EXPECT_THAT(rendered(row.markdown).html, HasSubstr(row.html)) << row.why;
}

// What no input may bring into a page.
TEST(MarkdownPageTest, LetsNoMarkupThrough) {
  const char* const kHostile[] = {
      "<script>alert(1)</script>",
      "<img src=x onerror=alert(1)>",
      "a <b onclick=\"alert(1)\">b</b>",
      "<style>body{display:none}</style>",
      "<p style=\"position:fixed\">x</p>",
      "[x](javascript:alert(1))",
      "[x](JaVaScRiPt:alert(1))",
      "[x](&#106;avascript:alert(1))",
      "[x](java&#10;script:alert(1))",
      "[x](&#1;javascript:alert(1))",
      "[x](vbscript:x)",
      "[x](data:text/html,<script>alert(1)</script>)",
      "[x](file:///etc/passwd)",
      "[x](//evil.example/x)",
      "[x](\\\\evil.example\\x)",
      "<javascript:alert(1)>",
      "![x](javascript:alert(1))",
      "![x](data:image/svg+xml,<svg onload=alert(1)>)",
      "![\"onerror=\"alert(1)](https://e.org/x)",
      "[a]: javascript:alert(1)\n\n[a]",
      "[x](https://e.org/\"onmouseover=\"alert(1))",
      "## <script>alert(1)</script>",
      "## \"><script>alert(1)</script>",
      "```\"><script>alert(1)</script>\nx\n```",
      "```mermaid\n</code></pre><script>alert(1)</script>\n```",
      "| <script>alert(1)</script> |\n|---|\n| <img onerror=alert(1)> |",
      "| [x](//evil.example) | [y](java&#10;script:alert(1)) |\n|---|---|\n| ![z](javascript:alert(1)) | a |",
      "`<script>alert(1)</script>`",
      "    <script>alert(1)</script>",
      "<!-- --><script>alert(1)</script>",
      "<a href=\"javascript:alert(1)\">x</a>",
      "<iframe src=\"https://evil.example\"></iframe>",
      "![a ![b](javascript:alert(1)) [c](javascript:alert(1))](javascript:alert(1))",
      "\x01\x02<script\x00>",
  };
  for (const char* const hostile : kHostile) {
    const std::string html = utils::lower_case(rendered(hostile).html);
    for (const char* const forbidden :
         {"<script", "<img", "<style", "<iframe", "<b ", "<p style", "href=\"javascript", "href=\"vbscript",
          "href=\"data", "href=\"file", "href=\"//", "href=\"\\", "src=", " onclick=\"", " onerror=\"",
          "\"onmouseover", "\x01"}) {
      EXPECT_THAT(html, Not(HasSubstr(forbidden))) << hostile;
    }
  }
}

TEST(MarkdownPageTest, MarksTheSentenceInDoubt) {
  const struct {
    const char* markdown;
    const char* html;
    const char* why;
  } kRows[] = {
      {"First one. Second is so [src/a.cc:L5]. Third.",
       "First one. <span class=\"doubt doubt-changed\">Second is so <a", "from the full stop before"},
      {"First one. Second is so [src/a.cc:L5]. Third.",
       "</a>.</span> Third.</p>\n<details class=\"change change-changed\">",
       "to the full stop after, and how it changed below the paragraph"},
      {"First. Second is so. [src/a.cc:L5]", "First. <span class=\"doubt doubt-changed\">Second is so. <a",
       "a citation behind the full stop belongs to the sentence before it"},
      {"Some *strong [src/a.cc:L5] words* here.", "<span class=\"doubt doubt-changed\">Some <em>strong <a",
       "the mark goes around emphasis, never through it"},
      {"First.\nSecond [src/a.cc:L5].", "First.\n<span class=\"doubt doubt-changed\">Second",
       "from the line after"},
      {"Such as e.g. this [src/a.cc:L5].", "<span class=\"doubt doubt-changed\">Such as",
       "an abbreviation is no end"},
      {"- item [src/a.cc:L5]", "<li><span class=\"doubt doubt-changed\">item <a", "an item of a list"},
      {"| a |\n|---|\n| b [src/a.cc:L5] |", "</table>\n</div>\n<details", "below a table, not in it"},
      {"## Head [src/a.cc:L5]\n\nText.", "</h2>\n<details", "below a heading"},
      {"x [src/a.cc:L5]", "<del>-old &lt;b&gt;\n</del><del>--- like a label\n</del><ins>+new\n</ins>",
       "old and new text, escaped"},
      {"x [src/a.cc:L5]", "<summary>[src/a.cc] is &lt;doubtful&gt;</summary>", "what is doubtful, escaped"},
  };
  for (const auto& row : kRows) {
    EXPECT_THAT(rendered(row.markdown, {mark(5, CitationState::changed)}).html, HasSubstr(row.html))
        << row.why;
  }
}

TEST(MarkdownPageTest, MarksOnlyTheCitationsInDoubt) {
  const std::string html =
      rendered("One [src/a.cc:L5]. Two [src/a.cc:L6]. Three [src/a.cc:L5].", {mark(6, CitationState::moved)})
          .html;
  EXPECT_THAT(html, HasSubstr("<span class=\"doubt doubt-moved\">Two "));
  EXPECT_EQ(html.find("doubt", html.find("Three")), html.find("doubtful", html.find("Three")));
}

TEST(MarkdownPageTest, ListsTheHeadingsWithIdsOfTheirOwn) {
  const PageHtml page = rendered("## Same\n\n## Same\n\n### \xC3\x84 & b\n\n## ...\n");
  ASSERT_EQ(page.contents.size(), 4U);
  EXPECT_EQ(page.contents[0].id, "s-same");
  EXPECT_EQ(page.contents[1].id, "s-same.2");
  EXPECT_EQ(page.contents[2].text, "\xC3\x84 & b");
  EXPECT_EQ(page.contents[2].level, 3);
  EXPECT_EQ(page.contents[3].id, "s-section");
}

}  // namespace
}  // namespace ossilar::web
