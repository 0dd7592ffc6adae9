// The plain excerpt is the beginning of a file. But a file begins with its licence and its includes, and what
// it is about comes later, so the lines around its symbols are shown as well, the most telling symbols first.
//
// Every line keeps its number in the file, by which an author cites; leaving out a licence shifts nothing.
#include "ossilar/workers/wiki/grounding/excerpts.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>

#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;
using source::Symbol;

// Lines: the comment at the head of a file, its includes, and often its first declarations.
constexpr std::size_t kHeadLines = 40;
constexpr std::size_t kLicenceBegins = 6;    // lines: a licence says so within these
constexpr std::size_t kLongestLicence = 60;  // lines: it ends, with a blank line, within these
// Lines around a symbol: a comment above its declaration, and enough below to see what it does.
constexpr std::size_t kLinesBefore = 4;
constexpr std::size_t kLinesAfter = 16;
constexpr std::size_t kLongestLine = 200;   // bytes; longer lines are data or minified
constexpr std::size_t kLeastExcerpt = 400;  // bytes, some ten lines: less shows nothing worth the heading
constexpr std::size_t kFrame = 64;          // bytes: short fences, line feeds and a few "..."

// 0 for types, 1 for functions, 2 for all else, by the names that the symbol tool gives kinds in all
// languages. An unknown kind ranks last instead of failing: languages bring their own.
int kind_rank(std::string_view kind) {
  static constexpr std::array<std::string_view, 9> kTypes{"class", "interface", "trait", "struct", "enum",
                                                          "union", "typedef",   "type",  "module"};
  static constexpr std::array<std::string_view, 6> kFunctions{"function",    "method", "func",
                                                              "constructor", "macro",  "subroutine"};
  if (std::find(kTypes.begin(), kTypes.end(), kind) != kTypes.end()) return 0;
  return std::find(kFunctions.begin(), kFunctions.end(), kind) != kFunctions.end() ? 1 : 2;
}

constexpr std::string_view kCut = "\u2026";  // stands for the rest of a line

// A line as it is shown: its number from 1, two blanks, the line or its beginning. size() is the size of what
// append_to() adds, so that room can be counted before anything is put together.
struct NumberedLine {
  std::string number;
  std::string_view shown;
  std::string_view cut;

  NumberedLine(std::size_t place, std::string_view line)
      : number(std::to_string(place)),
        shown(utils::utf8_prefix(line, kLongestLine)),
        cut(shown.size() < line.size() ? kCut : "") {}

  std::size_t size() const { return number.size() + 2 + shown.size() + cut.size() + 1; }
  void append_to(std::string& out) const {
    out.append(number).append("  ").append(shown).append(cut).append("\n");
  }
};

// The index of the first line past a licence at the head of the file, which tells nothing about the code; 0
// when none is found, or none that ends in time. The words lack their first letter, which may be a capital.
std::size_t first_telling_line(const std::vector<std::string_view>& lines) {
  const auto in_licence = [](std::string_view line) {
    return line.find("opyright") != std::string_view::npos || line.find("icense") != std::string_view::npos;
  };
  const auto head = lines.begin() + static_cast<std::ptrdiff_t>(std::min(lines.size(), kLicenceBegins));
  if (std::none_of(lines.begin(), head, in_licence)) return 0;
  const auto blank =
      std::find_if(lines.begin(), lines.end(), [](std::string_view l) { return utils::strip(l).empty(); });
  const auto first = static_cast<std::size_t>(blank - lines.begin());
  return first < std::min(lines.size(), kLongestLicence) ? first + 1 : 0;
}

// Marks which lines to show, from the most telling on, until `room` bytes are used up. Marked first and put
// together later, because lines are chosen by what they tell and shown in the file's order. `lines` must
// outlive it.
class Selection {
 public:
  Selection(const std::vector<std::string_view>& lines, std::size_t room)
      : lines_(lines), chosen_(lines.size(), false), room_(room) {}

  // Takes the lines from index `first` up to before `last`, in order, as far as they fit; false when one did
  // not. Lines taken already cost nothing again.
  bool take(std::size_t first, std::size_t last) {
    for (std::size_t i = first; i < std::min(last, lines_.size()); ++i) {
      if (chosen_[i]) continue;
      const std::size_t size = NumberedLine(i + 1, lines_[i]).size();
      if (size > room_) return false;
      room_ -= size;
      chosen_[i] = true;
    }
    return true;
  }

  std::string text() const {
    std::string out;
    bool gap = false;
    for (std::size_t i = 0; i < lines_.size(); ++i) {
      if (chosen_[i] && gap && !out.empty()) out += "...\n";  // not above the first line: its number says it
      if (chosen_[i]) NumberedLine(i + 1, lines_[i]).append_to(out);
      gap = !chosen_[i];
    }
    return out;
  }

 private:
  const std::vector<std::string_view>& lines_;
  std::vector<bool> chosen_;
  std::size_t room_;
};

// The head of the file, the lines around its symbols, and then the others from the start, as far as they fit.
std::string telling_lines(const std::vector<Symbol>& symbols, const std::vector<std::string_view>& lines,
                          std::size_t room) {
  Selection selection(lines, room);
  const std::size_t start = first_telling_line(lines);
  bool more = selection.take(start, start + kHeadLines);
  for (const Symbol& symbol : symbols) {
    if (!more) break;
    // The index may be older than the text: a line that is 0 or past the end takes what there is.
    const auto line = static_cast<std::size_t>(std::max<std::int64_t>(symbol.line, 1)) - 1;
    more = selection.take(line - std::min(line, kLinesBefore), line + kLinesAfter);
  }
  if (more) selection.take(start, lines.size());
  return selection.text();
}

}  // namespace

std::vector<Symbol> telling_symbols(const SourceFile& file) {
  std::vector<Symbol> symbols = file.symbols.all();
  const auto key = [](const Symbol& s) {
    return std::make_tuple(kind_rank(s.kind) == 2, !s.scope.empty(), kind_rank(s.kind));
  };
  // Stable: what ranks the same stays in the order of the file.
  std::stable_sort(symbols.begin(), symbols.end(),
                   [&](const Symbol& a, const Symbol& b) { return key(a) < key(b); });
  return symbols;
}

std::string file_excerpt(const SourceFile& file, std::string_view text, std::size_t room) {
  return file_excerpt(file, text, room, telling_symbols(file));
}

std::string file_excerpt(const SourceFile& file, std::string_view text, std::size_t room,
                         const std::vector<Symbol>& symbols) {
  const std::string heading = "### " + one_line(file.path) + "\n\n";
  const std::size_t frame = heading.size() + kFrame;
  if (room < frame + kLeastExcerpt) return "";
  const std::vector<std::string_view> lines = utils::split_lines(text);
  // Fences and "..." are known only when the lines are chosen. Where they take more than the frame, as around
  // lines of backticks, the choice is made again in that much less room.
  for (std::size_t left = room - frame;;) {
    const std::string shown = telling_lines(symbols, lines, left);
    const std::string fence = utils::fence_for(shown);
    std::string excerpt = heading;
    excerpt.append(fence).append("\n").append(shown).append(fence).append("\n\n");
    if (shown.empty()) return "";
    if (excerpt.size() <= room) return excerpt;
    left -= std::min(left, excerpt.size() - room);
  }
}

std::string lines_excerpt(const std::string& path, std::string_view text, std::int64_t first,
                          std::int64_t last, std::size_t room) {
  const std::vector<std::string_view> lines = utils::split_lines(text);
  const std::string heading = "### " + one_line(path) + "\n\n";
  if (room < heading.size() + kFrame || first < 1) return "";
  Selection selection(lines, room - heading.size() - kFrame);
  selection.take(static_cast<std::size_t>(first - 1), static_cast<std::size_t>(std::max(last, first)));
  const std::string shown = selection.text();
  if (shown.empty()) return "";
  const std::string fence = utils::fence_for(shown);
  return heading + fence + "\n" + shown + fence + "\n\n";
}

std::string one_line(std::string_view text) {
  std::string out = utils::printable(text);
  std::replace_if(
      out.begin(), out.end(), [](char c) { return c == '\n' || c == '\t'; }, ' ');
  return out;
}

}  // namespace ossilar::workers::wiki
