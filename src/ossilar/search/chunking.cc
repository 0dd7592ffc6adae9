// Cuts a page in three steps: sections at headings of level 1 and 2, pieces that must stay together within
// each section, then neighbouring pieces packed up to the target size.
//
// A window that slides over the bytes, the usual way, would cut code blocks in two and join the end of one
// section with the start of the next; such a passage has no one heading and shows half a block. So cmark
// decides where blocks are, and packing never crosses a section. The pieces are ranges of the text in order,
// and leave out nothing but white space; as they are ranges, packing two neighbours keeps what lies between
// them.
#include "ossilar/search/chunking.h"

#include <cmark-gfm.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"

namespace ossilar::search {
namespace {

using utils::Block;
using utils::BlockKind;

// A range of the text, in bytes, that is not cut any further.
struct Piece {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::size_t size() const { return end - begin; }
};

// A heading of level 1 or 2, or the text's start, with everything up to the next.
struct Section {
  std::string title;
  std::vector<Block> blocks;
};

// All blocks, and before them what precedes the first one. Link definitions at the start of a text belong to
// no block; without this they would be in no passage.
std::vector<Block> all_blocks(std::string_view markdown) {
  std::vector<Block> blocks = utils::top_level_blocks(markdown);
  const std::size_t begin = blocks.empty() ? markdown.size() : blocks.front().begin;
  if (begin > 0) {
    Block lead;
    lead.end = begin;
    blocks.insert(blocks.begin(), lead);
  }
  return blocks;
}

std::vector<Section> sections(std::string_view markdown) {
  std::vector<Section> out(1);
  for (Block& block : all_blocks(markdown)) {
    const bool opens = block.kind == BlockKind::heading && block.level <= 2;
    if (opens) {
      out.emplace_back();
      // Each passage repeats its section's title, so a title's length must not grow with the text.
      if (block.level == 2) out.back().title = utils::utf8_prefix(block.text, kLongestPassage);
    }
    out.back().blocks.push_back(std::move(block));
  }
  return out;
}

// The code blocks in `text` at any depth, as ranges of whole lines. `text` is parsed by itself, which gives
// the same code blocks as within the page: it is one complete top-level block.
std::vector<Piece> code_in(std::string_view text) {
  const std::unique_ptr<cmark_node, decltype(&cmark_node_free)> root(
      cmark_parse_document(text.data(), text.size(), CMARK_OPT_DEFAULT), &cmark_node_free);
  const std::unique_ptr<cmark_iter, decltype(&cmark_iter_free)> iter(cmark_iter_new(root.get()),
                                                                     &cmark_iter_free);
  const std::vector<std::size_t> lines = utils::line_offsets(text);
  // Clamped: the offsets end with the size of the text, and a last line may end there too.
  const auto offset = [&](int line) {
    return lines[std::min(static_cast<std::size_t>(line), lines.size() - 1)];
  };
  std::vector<Piece> found;
  while (cmark_iter_next(iter.get()) != CMARK_EVENT_DONE) {
    cmark_node* node = cmark_iter_get_node(iter.get());
    if (cmark_node_get_type(node) != CMARK_NODE_CODE_BLOCK) continue;
    found.push_back({offset(cmark_node_get_start_line(node) - 1), offset(cmark_node_get_end_line(node))});
  }
  return found;
}

// Where to cut a text longer than kLongestPassage: after the first line feed from the target size on, else
// after the first end of a sentence, else between words, else between characters. Each search stays within
// the first kLongestPassage bytes, so that cutting a long text costs linear time.
std::size_t cut_of(std::string_view text) {
  const std::string_view window = text.substr(0, kLongestPassage);
  if (const auto feed = window.find('\n', kTargetPassage - 1); feed != window.npos) return feed + 1;
  const auto blank = [&](std::size_t from) { return window.find_first_of(" \t", from); };
  for (auto at = blank(kTargetPassage); at != window.npos; at = blank(at + 1)) {
    if (std::string_view(".!?:;").find(window[at - 1]) != std::string_view::npos) return at + 1;
  }
  if (const auto at = blank(kTargetPassage); at != window.npos) return at + 1;
  // 0 for a run of stray UTF-8 continuation bytes, which has no character to cut before. Each cut must
  // advance.
  const std::size_t whole_characters = utils::utf8_prefix(text, kLongestPassage).size();
  return whole_characters > 0 ? whole_characters : kLongestPassage;
}

// Collects the pieces of a section. Headings wait until the block below them comes, and go into its piece. No
// piece is longer than kLongestPassage but a code block.
class Pieces {
 public:
  explicit Pieces(std::string_view markdown) : markdown_(markdown) {}

  // Blocks are added in the order of the text.
  void add(const Block& block) {
    const std::size_t begin = heading_.value_or(block.begin);
    if (block.kind == BlockKind::heading) {
      heading_ = begin;
    } else {
      heading_.reset();
      add_content(block, begin);
    }
    end_ = block.end;
  }

  // Called once, at the end of the section: a heading that still waits has no text below it.
  std::vector<Piece> take() {
    if (heading_) add_text({*heading_, end_});
    return std::move(pieces_);
  }

 private:
  // `begin` is that of the block, or of the headings that wait above it.
  void add_content(const Block& block, std::size_t begin) {
    const Piece all = trimmed({begin, block.end});
    if (all.size() <= kLongestPassage) {
      add_whole(all);
    } else if (block.kind == BlockKind::code) {
      add_text({begin, block.begin});
      add_whole({block.begin, block.end});
    } else {
      add_around_code(block, begin);
    }
  }

  // Cuts the block around the code blocks in it, which stay whole. Only a block of kind `other`, such as a
  // list or a quote, can contain any, so no other is parsed a second time.
  void add_around_code(const Block& block, std::size_t begin) {
    if (block.kind == BlockKind::other) {
      for (const Piece& code : code_in(markdown_.substr(block.begin, block.end - block.begin))) {
        add_text({begin, block.begin + code.begin});
        add_whole({block.begin + code.begin, block.begin + code.end});
        begin = block.begin + code.end;
      }
    }
    add_text({begin, block.end});
  }

  void add_text(Piece text) {
    for (text = trimmed(text); text.size() > kLongestPassage;) {
      const std::size_t cut = text.begin + cut_of(markdown_.substr(text.begin, text.size()));
      add_whole({text.begin, cut});
      text = trimmed({cut, text.end});
    }
    add_whole(text);
  }

  void add_whole(const Piece& piece) {
    const Piece trim = trimmed(piece);
    if (trim.size() > 0) pieces_.push_back(trim);
  }

  // The piece without blank lines at its start and white space at its end. The indentation of the first line
  // stays, as it may make the line code or a list item; but a piece that begins within a line, after a cut,
  // loses the blanks of the cut.
  Piece trimmed(const Piece& piece) const {
    const std::string_view text = markdown_.substr(piece.begin, piece.size());
    const std::string_view stripped = utils::strip(text);
    if (stripped.empty()) return {piece.begin, piece.begin};
    const auto first = static_cast<std::size_t>(stripped.data() - text.data());
    const std::size_t end = piece.begin + first + stripped.size();
    if (const auto feed = text.substr(0, first).rfind('\n'); feed != text.npos)
      return {piece.begin + feed + 1, end};
    const bool at_line_start = piece.begin == 0 || markdown_[piece.begin - 1] == '\n';
    return {piece.begin + (at_line_start ? 0 : first), end};
  }

  std::string_view markdown_;
  std::optional<std::size_t> heading_;  // the start of the first heading that waits for its text
  std::size_t end_ = 0;                 // of the block added last
  std::vector<Piece> pieces_;
};

// Joins neighbours while the result stays within the target. Greedy, from the front: an edit leaves the
// passages before it and those of other sections as they were, and a passage whose text is unchanged keeps
// its stored vector.
std::vector<Piece> packed(const std::vector<Piece>& pieces) {
  std::vector<Piece> out;
  for (const Piece& piece : pieces) {
    if (!out.empty() && piece.end - out.back().begin <= kTargetPassage) {
      out.back().end = piece.end;
    } else {
      out.push_back(piece);
    }
  }
  return out;
}

}  // namespace

std::vector<Passage> passages(std::string_view markdown) {
  std::vector<Passage> out;
  for (const Section& section : sections(markdown)) {
    Pieces pieces(markdown);
    for (const Block& block : section.blocks) pieces.add(block);
    for (const Piece& piece : packed(pieces.take())) {
      out.push_back({section.title, std::string(markdown.substr(piece.begin, piece.size()))});
    }
  }
  return out;
}

}  // namespace ossilar::search
