#include "ossilar/workers/wiki/grounding/excerpts.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>

#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;
using source::Symbol;

// The comment at the head of a file, its includes, and often its first declarations.
constexpr std::size_t kHeadLines = 40;
constexpr std::size_t kLicenceBegins = 6;    // a licence says so within these lines
constexpr std::size_t kLongestLicence = 60;  // and ends, with a blank line, within these
// A comment above a declaration, and enough below it to see what it does.
constexpr std::size_t kLinesBefore = 4;
constexpr std::size_t kLinesAfter = 16;
constexpr std::size_t kLongestLine = 200;   // bytes; longer lines are data or minified
constexpr std::size_t kLeastExcerpt = 400;  // less shows nothing worth the heading
constexpr std::size_t kFrame = 64;          // fences and what stands between parts

int kind_rank(std::string_view kind) {
  static constexpr std::array<std::string_view, 9> kTypes{"class", "interface", "trait", "struct", "enum",
                                                          "union", "typedef",   "type",  "module"};
  static constexpr std::array<std::string_view, 6> kFunctions{"function",    "method", "func",
                                                              "constructor", "macro",  "subroutine"};
  if (std::find(kTypes.begin(), kTypes.end(), kind) != kTypes.end()) return 0;
  return std::find(kFunctions.begin(), kFunctions.end(), kind) != kFunctions.end() ? 1 : 2;
}

constexpr std::string_view kCut = "\u2026";  // stands for the rest of a line

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

// Past a licence at the head of the file, which tells nothing about the code.
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

// Marks which lines to show, from the most telling on, until `room` is used up.
class Selection {
 public:
  Selection(const std::vector<std::string_view>& lines, std::size_t room)
      : lines_(lines), chosen_(lines.size(), false), room_(room) {}

  // Takes lines from `first` on, before `last`, as far as there is room; false when there is no more.
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
      if (chosen_[i] && gap && !out.empty()) out += "...\n";
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

std::string fence_for(std::string_view text) {
  std::size_t longest = 0, run = 0;
  for (const char c : text) {
    run = c == '`' ? run + 1 : 0;
    longest = std::max(longest, run);
  }
  return std::string(std::max<std::size_t>(3, longest + 1), '`');
}

}  // namespace

std::vector<Symbol> telling_symbols(const SourceFile& file) {
  std::vector<Symbol> symbols = file.symbols.all();
  const auto key = [](const Symbol& s) {
    return std::make_tuple(kind_rank(s.kind) == 2, !s.scope.empty(), kind_rank(s.kind));
  };
  std::stable_sort(symbols.begin(), symbols.end(),
                   [&](const Symbol& a, const Symbol& b) { return key(a) < key(b); });
  return symbols;
}

std::string file_excerpt(const SourceFile& file, std::string_view text, std::size_t room) {
  const std::string heading = "### " + one_line(file.path) + "\n\n";
  const std::size_t frame = heading.size() + kFrame;
  if (room < frame + kLeastExcerpt) return "";
  // A fence may need as many backticks as the longest line has, twice.
  const std::vector<std::string_view> lines = utils::split_lines(text);
  Selection selection(lines, room - frame - 2 * std::min(kLongestLine, room - frame - kLeastExcerpt));
  const std::size_t start = first_telling_line(lines);
  bool more = selection.take(start, start + kHeadLines);
  for (const Symbol& symbol : telling_symbols(file)) {
    if (!more) break;
    const auto line = static_cast<std::size_t>(std::max<std::int64_t>(symbol.line, 1)) - 1;
    more = selection.take(line - std::min(line, kLinesBefore), line + kLinesAfter);
  }
  if (more) selection.take(start, lines.size());
  const std::string shown = selection.text();
  const std::string fence = fence_for(shown);
  return shown.empty() ? "" : heading + fence + "\n" + shown + fence + "\n\n";
}

std::string one_line(std::string_view text) {
  std::string out = utils::printable(text);
  std::replace_if(
      out.begin(), out.end(), [](char c) { return c == '\n' || c == '\t'; }, ' ');
  return out;
}

}  // namespace ossilar::workers::wiki
