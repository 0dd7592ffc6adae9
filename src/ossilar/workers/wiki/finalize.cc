// The parser decides where blocks begin; the text itself is only ever cut and joined, never rendered from the
// parsed tree. A round trip through the tree would change the author's bytes, against both laws.
//
// The difficult part is to find where the authored text ends. The marker is a plain line, so it may be quoted
// in a code example, be swallowed by a block that is left open, or come back inside a page that an agent
// hands in whole. Hence two searches: find_frame() for a text that somebody hands in, and
// find_stored_frame(), which is more generous, for a page file, whose end was most likely written by a save.
//
// tests/ossilar/workers/wiki/laws_test.cc holds the laws against the examples of the CommonMark specification
// and against generated pages.
#include "ossilar/workers/wiki/finalize.h"

#include <algorithm>
#include <optional>

#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

using utils::Block;
using utils::BlockKind;

// Follows the marker. Inside a block that was left open the parser sees no marker; the note right below tells
// it from an example of one.
constexpr std::string_view kGeneratedNote =
    "<!-- What follows is rebuilt by every save; write above the marker. -->";

// A page may rest on thousands of files; beyond what a reader looks through, the list only says how many
// more. The record has all of them.
constexpr std::size_t kMostSourcesListed = 60;
constexpr std::size_t kLongestSummary = 600;  // bytes: a few sentences; index.md has it on the page's line

std::string_view line_at(std::string_view text, std::size_t at) {
  return at > text.size() ? std::string_view() : text.substr(at, text.find('\n', at) - at);
}

std::size_t next_line(std::string_view text, std::size_t at) {
  const std::size_t feed = text.find('\n', at);
  return feed == std::string_view::npos ? text.size() : feed + 1;
}

std::string_view without_trailing_blanks(std::string_view line) {
  const std::size_t end = line.find_last_not_of(" \t");
  return end == std::string_view::npos ? std::string_view() : line.substr(0, end + 1);
}

bool is_marker(std::string_view line) { return without_trailing_blanks(line) == kGeneratedMarker; }

// The offsets of the lines that are the marker, code and quotes included. find() first: most texts have none,
// and then no line is looked at.
std::vector<std::size_t> marker_lines(std::string_view text) {
  std::vector<std::size_t> found;
  for (std::size_t at = text.find(kGeneratedMarker); at != std::string_view::npos;
       at = text.find(kGeneratedMarker, at + 1)) {
    if ((at == 0 || text[at - 1] == '\n') && is_marker(line_at(text, at))) found.push_back(at);
  }
  return found;
}

// The offset of our note below the marker at `at`: on the next line, or on the one after it, if a line that
// closes an open block is between them.
std::optional<std::size_t> note_below(std::string_view text, std::size_t at) {
  for (int lines = 0; lines < 2; ++lines) {
    at = next_line(text, at);
    if (line_at(text, at) == kGeneratedNote) return at;
  }
  return std::nullopt;
}

// Where a generated part begins: at the first marker that begins a block at the top level. Or at one inside a
// block, if that block ends right below it and our note begins the next: so a page looks whose author left a
// block open (see generated_part()). A marker in a code example is neither, so the plain search for its line
// would cut a page off in the middle.
std::optional<std::size_t> find_frame(std::string_view text) {
  const std::vector<std::size_t> markers = marker_lines(text);
  if (markers.empty()) return std::nullopt;
  std::vector<std::size_t> html;
  for (const Block& block : utils::top_level_blocks(text)) {
    if (block.kind == BlockKind::html) html.push_back(block.begin);
  }
  const auto begins_block = [&](std::size_t at) { return std::binary_search(html.begin(), html.end(), at); };
  const auto found = std::find_if(markers.begin(), markers.end(), [&](std::size_t at) {
    const auto note = note_below(text, at);
    return begins_block(at) || (note && begins_block(*note));
  });
  return found == markers.end() ? std::nullopt : std::optional(*found);
}

// The same for a page file. A hand may have left a block open above the marker, and then CommonMark takes the
// rest of the file into that block. The last marker with a note is the page's own even so: those that
// an author quotes are above it.
std::optional<std::size_t> find_stored_frame(std::string_view stored) {
  if (const auto frame = find_frame(stored)) return frame;
  const std::vector<std::size_t> markers = marker_lines(stored);
  const auto noted = std::find_if(markers.rbegin(), markers.rend(),
                                  [&](std::size_t at) { return note_below(stored, at).has_value(); });
  return noted == markers.rend() ? std::nullopt : std::optional(*noted);
}

// `text` up to the generated part at `frame`, without the blank line that assemble_page() puts before it.
std::string_view before_frame(std::string_view text, std::size_t frame) {
  std::string_view before = text.substr(0, frame);
  if (before.size() >= 2 && before.substr(before.size() - 2) == "\n\n") before.remove_suffix(1);
  return before == "\n" ? std::string_view() : before;
}

struct Leading {
  std::vector<std::string> titles;
  std::size_t end = 0;  // of the headings and of one blank line after the last
};

bool is_blank(std::string_view text) { return text.find_first_not_of(" \t\n") == std::string_view::npos; }

// Whether `heading` may begin with link definitions. CommonMark takes them off a Setext heading's text, so
// taking the heading off would silently drop them.
bool may_define_links(std::string_view heading) {
  const std::size_t start = heading.find_first_not_of(' ');
  return start != std::string_view::npos && heading[start] == '[' &&
         heading.find("]:") != std::string_view::npos;
}

// All level-1 headings at the start, not the first alone: with one left, saving a page again would take off
// more than the save before.
Leading leading_headings(std::string_view text) {
  Leading leading;
  for (const Block& block : utils::top_level_blocks(text)) {
    const bool first = is_blank(text.substr(leading.end, block.begin - leading.end));
    if (!first || block.kind != BlockKind::heading || block.level != 1) break;
    if (may_define_links(text.substr(block.begin, block.marks_end - block.begin))) break;
    leading.titles.push_back(block.text);
    leading.end = block.marks_end;
    if (leading.end < text.size() && text[leading.end] == '\n') ++leading.end;
  }
  return leading;
}

std::string one_line(std::string_view text) {
  std::string out;
  for (const std::string_view word : utils::split_words(text)) {
    if (!out.empty()) out += ' ';
    out += word;
  }
  return out;
}

// `text` as Markdown that reads as itself. Text that does so already stays as it is, so that titles are easy
// to read in the file; brackets are always escaped, as a definition elsewhere could make a link of them.
std::string escaped_inline(const std::string& text) {
  if (utils::plain_inline(text) == text && text.find('[') == std::string::npos) return text;
  static constexpr std::string_view kMarks = "\\`*_<>[]&#~|!";
  std::string out;
  for (const char c : text) {
    if (kMarks.find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

// The first line of a page file.
std::string heading_line(const std::string& title) { return "# " + escaped_inline(one_line(title)) + "\n"; }

// Code spans show a path as it is; a backtick in one is rare enough to lose.
std::string code_span(std::string path) {
  std::replace_if(
      path.begin(), path.end(), [](char c) { return c == '`' || static_cast<unsigned char>(c) < 0x20; }, '?');
  return "`" + path + "`";
}

std::string diagrams_part(const std::vector<Diagram>& diagrams) {
  std::string out;
  for (const auto& [caption, text] : diagrams) {
    const std::string fence = utils::fence_for(text);
    out.append("**").append(escaped_inline(caption)).append("**\n\n");
    out.append(fence).append("mermaid\n").append(text);
    if (!text.empty() && text.back() != '\n') out += '\n';
    out += fence + "\n\n";
  }
  return out;
}

std::string sources_part(const std::vector<std::string>& sources) {
  if (sources.empty()) return "";
  std::string out = "**Sources**\n\n";
  const std::size_t listed = std::min(sources.size(), kMostSourcesListed);
  for (std::size_t i = 0; i < listed; ++i) out += "- " + code_span(sources[i]) + "\n";
  if (sources.size() > listed) out += "- and " + std::to_string(sources.size() - listed) + " more\n";
  return out + "\n";
}

std::string definitions_part(const PageLinks& links) {
  std::string out;
  for (const auto& [label, target] : links.targets) {
    out.append("[").append(label).append("]: ").append(target).append("\n");
  }
  return out;
}

std::string generated_part(const PagePlan& plan, const std::string& authored,
                           const std::vector<Diagram>& diagrams, const PageLinks& links,
                           const std::string& record) {
  std::string out = std::string(kGeneratedMarker) + "\n";
  // A block that the author left open would swallow what follows, link definitions included, so it is closed
  // here. Asked with the marker in place: that ends a comment by itself, and a second end would show.
  if (const std::string closer = utils::closing_line(authored + "\n" + out); !closer.empty())
    out += closer + "\n";
  out += std::string(kGeneratedNote) + "\n\n";
  out += diagrams_part(diagrams) + sources_part(plan.stored_source_files()) + definitions_part(links);
  out.erase(out.find_last_not_of('\n') + 1);  // one line feed at the end, whichever part is the last
  out += "\n";
  return record.empty() ? out : with_record(std::move(out), record);
}

// The first paragraph above the sections as plain text, cut to what a list shows on one line.
std::string summary_line(const Authored& authored, const std::string& description) {
  const std::string prose = utils::prose_text(authored.summary);
  const std::string_view stripped = utils::strip(prose);
  if (stripped.empty()) return description;
  return std::string(utils::utf8_prefix(stripped.substr(0, stripped.find('\n')), kLongestSummary));
}

}  // namespace

std::string Authored::text() const {
  const bool joined = summary.empty() || body.empty() || summary.back() == '\n';
  return joined ? summary + body : summary + "\n\n" + body;
}

std::string_view without_generated(std::string_view text) {
  const auto frame = find_frame(text);
  return frame ? before_frame(text, *frame) : text;
}

std::string_view generated_of(std::string_view stored) {
  const auto frame = find_stored_frame(stored);
  return frame ? stored.substr(*frame) : std::string_view();
}

std::string authored_text(std::string_view content) {
  const std::string normalised = utils::normalise_line_ends(content);
  const std::string_view text = without_generated(normalised);
  std::string authored(text.substr(leading_headings(text).end));
  if (!authored.empty() && authored.back() != '\n') authored += '\n';
  return authored;
}

std::vector<std::string> leading_titles(std::string_view content) {
  const std::string normalised = utils::normalise_line_ends(content);
  return leading_headings(without_generated(normalised)).titles;
}

Authored split_text(std::string_view authored) {
  for (const Block& block : utils::top_level_blocks(authored)) {
    if (block.kind == BlockKind::heading && block.level == 2) {
      return {std::string(authored.substr(block.begin)), std::string(authored.substr(0, block.begin))};
    }
  }
  return {"", std::string(authored)};
}

std::string with_record(std::string page_text, const std::string& record) {
  return std::move(page_text.append("\n").append(record));
}

std::string title_line(std::string_view page_text) {
  if (!page_text.starts_with("# ")) return "";
  return utils::plain_inline(page_text.substr(2, page_text.find('\n') - 2));
}

std::string title_as_heading(std::string_view title) { return utils::plain_inline(one_line(title)); }

std::string with_title(std::string_view page_text, const std::string& title) {
  std::string text = heading_line(title);
  if (!page_text.starts_with("# ")) return text.append("\n").append(page_text);
  return text.append(page_text.substr(next_line(page_text, 0)));
}

FinalizedPage assemble_page(const PagePlan& plan, const Authored& authored,
                            const std::vector<Diagram>& diagrams, PageLinks links,
                            const std::string& record) {
  const std::string text = authored.text();
  FinalizedPage page;
  page.markdown =
      heading_line(plan.title) + "\n" + text + "\n" + generated_part(plan, text, diagrams, links, record);
  page.citations = std::move(links.citations);
  page.summary = summary_line(authored, plan.description);
  page.outline = section_headings(text);
  page.authored = authored;
  return page;
}

std::string searchable_text(std::string_view markdown) { return split_authored(markdown, "").text(); }

std::vector<std::string> section_headings(std::string_view text) {
  std::vector<std::string> headings;
  for (Block& block : utils::top_level_blocks(text)) {
    if (block.kind == BlockKind::heading && block.level == 2) headings.push_back(std::move(block.text));
  }
  return headings;
}

Authored split_authored(std::string_view stored, std::string_view /*description*/) {
  std::string_view text = stored;
  if (const auto frame = find_stored_frame(text)) text = before_frame(text, *frame);
  // What assemble_page() puts in front, a title line and a blank line; other level-1 headings stay.
  if (text.substr(0, 2) == "# ") {
    text.remove_prefix(next_line(text, 0));
    if (!text.empty() && text.front() == '\n') text.remove_prefix(1);
  }
  return split_text(text);
}

}  // namespace ossilar::workers::wiki
