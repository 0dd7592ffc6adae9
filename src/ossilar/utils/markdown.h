// What CommonMark makes of a text, as cmark-gfm's core reads it (no extensions): the blocks at its top level,
// its links and its prose. Positions are byte offsets into the text that was given, whatever its line ends
// are. A text is read as a part of a page: a byte order mark at its start is text.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::utils {

enum class BlockKind { heading, code, html, other };

// A block at the top level of a text. A block begins at the start of its first line and runs to the next
// block, blank lines between them included; what stands before the first block belongs to none. Link
// definitions belong to the block above them, but to a Setext heading that they stand right before.
struct Block {
  BlockKind kind = BlockKind::other;
  int level = 0;     // of a heading, 1 to 6; else 0
  std::string text;  // of a heading: its plain text, whatever links the rest of the text defines; else ""
  std::size_t begin = 0;
  std::size_t marks_end = 0;  // of a heading: the end of its last line, an underline included; else `begin`
  std::size_t end = 0;
};

std::vector<Block> top_level_blocks(std::string_view markdown);

struct Link {
  std::string url;
  std::string text;  // plain
};

// The links of the text in the order in which they stand, images left out. Links inside code are no links.
std::vector<Link> links(std::string_view markdown);

// The text of paragraphs, headings, lists, tables and quotes with code spans, a line feed between blocks;
// code blocks, HTML and link targets left out.
std::string prose_text(std::string_view markdown);

// The plain text of `markdown` read as one line of inline text, such as a heading without its marks.
std::string plain_inline(std::string_view markdown);

// The line that closes the code fence or HTML block which `markdown` leaves open at its end, or "" when a
// block put after a blank line would stand at the top level already.
std::string closing_line(std::string_view markdown);

}  // namespace ossilar::utils
