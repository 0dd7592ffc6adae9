// The hash of the block alone cannot tell twins apart, and its lines' numbers are what changes. So the lines
// around it are remembered too, each by itself: when one of them changes, the others still say where the
// block stood.
#include "ossilar/workers/wiki/citing/fingerprint.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::size_t kTextDigits = 16;
// 16 bits of a line's hash. A line is only ever compared with some few others around a block whose own hash
// agrees already.
constexpr std::size_t kLineDigits = 4;
constexpr std::size_t kNearLines = 3;
// Equal blocks beyond this many need not be told apart by their number.
constexpr std::size_t kMostTwins = 100;

bool is_blank(std::string_view line) { return utils::strip(line).empty(); }

// From `line` on in steps of `step`, up to the end of the file, for which `edge` stands.
std::vector<std::string> neighbours(const LineText& text, std::int64_t line, int step, const char* edge) {
  std::vector<std::string> found;
  for (; found.size() < kNearLines; line += step) {
    if (line < 1 || line > text.size()) {
      found.emplace_back(edge);
      break;
    }
    if (!is_blank(text.line(line))) found.push_back(line_hash(text.line(line)));
  }
  return found;
}

std::vector<std::string> parts_of(const std::string& text) {
  std::vector<std::string> parts;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('.', begin), text.size());
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

// How many of the nearest lines are the same on both sides. The end of the file counts as all that are left.
std::size_t common(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  std::size_t count = 0;
  while (count < a.size() && count < b.size() && a[count] == b[count]) {
    if (a[count] == "^" || a[count] == "$") return kNearLines;
    ++count;
  }
  return count;
}

// Kinds of symbols that a reader would name as the place of a line; variables, macros and members are left
// out.
bool is_place(const std::string& kind) {
  static constexpr std::array<std::string_view, 12> kPlaces = {"function",  "method", "class",     "struct",
                                                               "interface", "enum",   "union",     "trait",
                                                               "type",      "module", "namespace", "func"};
  return std::find(kPlaces.begin(), kPlaces.end(), kind) != kPlaces.end();
}

}  // namespace

std::string short_hash(std::string_view text) { return utils::sha256_hex(text).substr(0, kTextDigits); }

std::string version_hash(const source::SourceFile& file) { return file.sha256.hex().substr(0, kTextDigits); }

std::string line_hash(std::string_view line) {
  return utils::sha256_hex(utils::strip(line)).substr(0, kLineDigits);
}

Near Near::of(const LineText& text, LineRange range) {
  return {neighbours(text, range.first - 1, -1, "^"), line_hash(text.line(range.first)),
          neighbours(text, range.last + 1, 1, "$")};
}

Near Near::of_text(const std::string& text) {
  const std::size_t first = text.find('-');
  const std::size_t last = text.rfind('-');
  if (first == std::string::npos || last == first) return {};
  return {parts_of(text.substr(0, first)), text.substr(first + 1, last - first - 1),
          parts_of(text.substr(last + 1))};
}

std::string Near::text() const {
  return utils::join(above, ".") + "-" + first + "-" + utils::join(below, ".");
}

Agreement agreement(const Near& a, const Near& b) {
  const std::size_t above = common(a.above, b.above);
  const std::size_t below = common(a.below, b.below);
  if (above >= 2 && below >= 2) return Agreement::full;
  return above >= 1 && below >= 1 ? Agreement::some : Agreement::none;
}

std::string full_name(const source::Symbol& symbol) {
  return symbol.scope.empty() ? symbol.name : symbol.scope + "::" + symbol.name;
}

std::string symbol_at(const std::vector<source::Symbol>& symbols, LineRange range) {
  const source::Symbol* above = nullptr;
  for (const source::Symbol& symbol : symbols) {
    if (symbol.line > range.last) break;
    if (!is_place(symbol.kind)) continue;
    if (symbol.line >= range.first) return full_name(symbol);
    above = &symbol;
  }
  return above == nullptr ? "" : full_name(*above);
}

Fingerprint fingerprint_of(const LineText& text, LineRange range, std::string symbol, FileVersion file) {
  const std::string_view block = text.block(range);
  Fingerprint print;
  print.text = short_hash(block);
  print.bare = short_hash(without_formatting(block));
  print.near = Near::of(text, range).text();
  print.symbol = std::move(symbol);
  print.twins = static_cast<std::int64_t>(text.places_of(block, kMostTwins).size());
  print.file = std::move(file);
  return print;
}

}  // namespace ossilar::workers::wiki
