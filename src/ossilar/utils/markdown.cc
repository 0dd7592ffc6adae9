// Everything is asked of the parser. Looking for lines that begin with `##` would be wrong in fences, HTML,
// quotes and lists, and reimplementing when those end is most of a parser. cmark reports lines, not offsets,
// so a table of line starts turns its answers into positions.
//
// Each call parses anew. Per-thread caches of the last parses were removed: a save took 4.2 and 4.3 times the
// least that the disk needs with them, 4.1 and 4.3 times without.
//
// The tree is walked with cmark's iterator, so deep nesting takes no stack.

#include "ossilar/utils/markdown.h"

#include <cmark-gfm.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>

#include "ossilar/utils/text.h"

namespace ossilar::utils {
namespace {

using Node = std::unique_ptr<cmark_node, decltype(&cmark_node_free)>;

// Parses `markdown` with blank lines around it. The one before keeps the parser from skipping a byte order
// mark, which it does in the first line; so lines of the result count one more than those of `markdown`. The
// ones after give a heading at the end the same line numbers as any other.
Node parse(std::string_view markdown) {
  const std::unique_ptr<cmark_parser, decltype(&cmark_parser_free)> parser(
      cmark_parser_new(CMARK_OPT_DEFAULT), &cmark_parser_free);
  cmark_parser_feed(parser.get(), "\n", 1);
  cmark_parser_feed(parser.get(), markdown.data(), markdown.size());
  cmark_parser_feed(parser.get(), "\n\n", 2);
  return {cmark_parser_finish(parser.get()), &cmark_node_free};
}

// Visits `root` and every node below it in document order, on entering and on leaving. Leaves are only
// entered.
void walk(cmark_node* root, const std::function<void(cmark_node*, bool entering)>& visit) {
  const std::unique_ptr<cmark_iter, decltype(&cmark_iter_free)> iter(cmark_iter_new(root), &cmark_iter_free);
  for (auto event = cmark_iter_next(iter.get()); event != CMARK_EVENT_DONE;
       event = cmark_iter_next(iter.get())) {
    visit(cmark_iter_get_node(iter.get()), event == CMARK_EVENT_ENTER);
  }
}

void append_inline(std::string& out, cmark_node* node) {
  const cmark_node_type type = cmark_node_get_type(node);
  if (type == CMARK_NODE_TEXT || type == CMARK_NODE_CODE) {
    out += cmark_node_get_literal(node);
  } else if (type == CMARK_NODE_SOFTBREAK || type == CMARK_NODE_LINEBREAK) {
    out += ' ';
  }
}

std::string inline_text(cmark_node* root) {
  std::string out;
  walk(root, [&](cmark_node* node, bool entering) {
    if (entering) append_inline(out, node);
  });
  return std::string(strip(out));
}

// Where each line begins as cmark counts lines: they end at LF, CR LF or a lone CR. (line_offsets() knows
// LF.)
std::vector<std::size_t> commonmark_lines(std::string_view text) {
  std::vector<std::size_t> offsets{0};
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool lone_return = text[at] == '\r' && (at + 1 == text.size() || text[at + 1] != '\n');
    if (text[at] == '\n' || lone_return) offsets.push_back(at + 1);
  }
  return offsets;
}

BlockKind kind_of(cmark_node* node) {
  const cmark_node_type type = cmark_node_get_type(node);
  if (type == CMARK_NODE_HEADING) return BlockKind::heading;
  if (type == CMARK_NODE_CODE_BLOCK) return BlockKind::code;
  if (type == CMARK_NODE_HTML_BLOCK) return BlockKind::html;
  return BlockKind::other;
}

// The number of lines of a heading. Of a Setext heading, cmark gives the line after the underline as the end.
std::size_t heading_lines(cmark_node* heading) {
  const int lines = cmark_node_get_end_line(heading) - cmark_node_get_start_line(heading);
  return static_cast<std::size_t>(std::max(lines, 1));
}

// The plain text of a heading. It is parsed alone, so that `[a]` in it reads the same whether or not the page
// defines a link `[a]`: a save adds such definitions.
std::string heading_text(std::string_view marks) {
  const Node root = parse(marks);
  return inline_text(root.get());
}

// A comment is a block that begins and ends on its line.
constexpr std::string_view kProbe = "<!-- end of open blocks -->";

// Whether a block after `markdown` and a blank line stands at the top level. cmark does not tell whether a
// fence or an HTML block was closed, so a block is appended and looked for: in an open fence it is code, and
// in open HTML it is only the end of a longer block.
bool is_closed(std::string_view markdown) {
  const std::string probed = std::string(markdown) + "\n\n" + std::string(kProbe) + "\n";
  const Node root = parse(probed);
  cmark_node* last = cmark_node_last_child(root.get());
  return last != nullptr && kind_of(last) == BlockKind::html &&
         std::string_view(cmark_node_get_literal(last)) == std::string(kProbe) + "\n";
}

// The fence that closes the last block of `markdown` if that is a fenced code block, closed or not; else "".
std::string closing_fence(std::string_view markdown) {
  const Node root = parse(markdown);
  cmark_node* last = cmark_node_last_child(root.get());
  if (last == nullptr || kind_of(last) != BlockKind::code) return "";
  int length = 0;
  int offset = 0;
  char mark = '`';
  if (cmark_node_get_fenced(last, &length, &offset, &mark) == 0) return "";
  return std::string(static_cast<std::size_t>(std::max(length, 3)), mark);  // a shorter one is no fence
}

}  // namespace

std::vector<Block> top_level_blocks(std::string_view markdown) {
  const Node root = parse(markdown);
  const std::vector<std::size_t> lines = commonmark_lines(markdown);
  std::vector<Block> blocks;
  for (cmark_node* node = cmark_node_first_child(root.get()); node != nullptr; node = cmark_node_next(node)) {
    Block block;
    block.kind = kind_of(node);
    // Lines count from one, and parse() puts one before the text.
    const std::size_t line = static_cast<std::size_t>(cmark_node_get_start_line(node)) - 2;
    block.begin = block.marks_end = lines[line];
    block.end = markdown.size();
    if (block.kind == BlockKind::heading) {
      block.level = cmark_node_get_heading_level(node);
      const std::size_t below = line + heading_lines(node);
      block.marks_end = below < lines.size() ? lines[below] : markdown.size();
      block.text = heading_text(markdown.substr(block.begin, block.marks_end - block.begin));
    }
    if (!blocks.empty()) blocks.back().end = block.begin;
    blocks.push_back(std::move(block));
  }
  return blocks;
}

std::vector<Link> links(std::string_view markdown) {
  const Node root = parse(markdown);
  std::vector<Link> found;
  walk(root.get(), [&](cmark_node* node, bool entering) {
    if (entering && cmark_node_get_type(node) == CMARK_NODE_LINK) {
      found.push_back({cmark_node_get_url(node), inline_text(node)});
    }
  });
  return found;
}

std::string prose_text(std::string_view markdown) {
  const Node root = parse(markdown);
  std::string out;
  walk(root.get(), [&](cmark_node* node, bool entering) {
    if (entering) {
      append_inline(out, node);
    } else if (cmark_node_get_type(node) == CMARK_NODE_PARAGRAPH ||
               cmark_node_get_type(node) == CMARK_NODE_HEADING) {
      out += '\n';
    }
  });
  return out;
}

// Read as a heading, in which a mark of a list or a quote at the start is text.
std::string plain_inline(std::string_view markdown) {
  std::string line = "# ";
  std::replace_copy_if(
      markdown.begin(), markdown.end(), std::back_inserter(line),
      [](char c) { return c == '\n' || c == '\r'; }, ' ');
  const Node root = parse(line);
  return inline_text(root.get());
}

std::string closing_line(std::string_view markdown) {
  if (is_closed(markdown)) return "";
  // Besides a fence, the ends of CommonMark's HTML blocks 1 to 5; 6 and 7 end at a blank line. Which of them
  // is open the parser does not tell, so each is tried. `</pre>` ends all of kind 1, also a script or a
  // style.
  const std::array<std::string, 6> candidates{closing_fence(markdown), "-->", "?>", "]]>", "</pre>", ">"};
  for (const std::string& candidate : candidates) {
    if (!candidate.empty() && is_closed(std::string(markdown) + "\n" + candidate)) return candidate;
  }
  return "";
}

std::string fence_for(std::string_view text) {
  std::size_t longest = 2;
  std::size_t run = 0;
  for (const char c : text) {
    run = c == '`' ? run + 1 : 0;
    longest = std::max(longest, run);
  }
  return std::string(longest + 1, '`');
}

}  // namespace ossilar::utils
