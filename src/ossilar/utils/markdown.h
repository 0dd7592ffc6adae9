// How CommonMark reads a text: the blocks at its top level, its links and its prose. The parser is cmark-gfm
// without its extensions. Positions are byte offsets into the text as it was given, whatever its line ends
// are. A text is taken for a part of a page, so a byte order mark at its start is text.
//
// Used by the modules of workers/wiki that divide, cite and finish a page, and by search/chunking.cc.
//
// Thread-safety: every function may be called from any thread. None fails: every text is Markdown.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::utils {

enum class BlockKind { heading, code, html, other };

// A block at the top level of a text: from the start of its first line to the start of the next block, blank
// lines included. Blank lines and link definitions before the first block belong to none. Link definitions
// belong to the block above them; directly before a Setext heading, to the heading.
struct Block {
  BlockKind kind = BlockKind::other;
  int level = 0;     // of a heading, 1 to 6; else 0
  std::string text;  // of a heading: its plain text, regardless of link definitions elsewhere; else ""
  std::size_t begin = 0;
  std::size_t marks_end = 0;  // of a heading: where its lines end, an underline included; else `begin`
  std::size_t end = 0;
};

// In order and without gaps: each ends where the next begins, the last at the end of the text.
std::vector<Block> top_level_blocks(std::string_view markdown);

struct Link {
  std::string url;
  std::string text;  // plain
};

// The links of the text in order, autolinks included and images left out. What looks like a link in code is
// none.
std::vector<Link> links(std::string_view markdown);

// The text of paragraphs and headings, also in lists and quotes, each ended by a line feed. Code spans are
// text; code blocks, HTML and link targets are left out. A table is a paragraph like any other.
std::string prose_text(std::string_view markdown);

// The plain text of `markdown`, which is read as one line of inline text, such as a heading without its
// marks. Line ends count as blanks.
std::string plain_inline(std::string_view markdown);

// The line that closes the code fence or the HTML block that `markdown` leaves open at its end. "" when
// nothing is open: a block after a blank line then stands at the top level.
std::string closing_line(std::string_view markdown);

// A code fence for a block with this text: of backticks, longer than any run of them in the text, which would
// end it.
std::string fence_for(std::string_view text);

}  // namespace ossilar::utils
