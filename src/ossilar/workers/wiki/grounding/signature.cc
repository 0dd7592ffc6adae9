// Read by the shape of the lines, which is the same in most languages: a declaration goes on while a bracket
// is open, and ends where its body begins or at a `;`. A parser for each language would know more, and would
// have to be kept for each.
#include "ossilar/workers/wiki/grounding/signature.h"

#include <algorithm>
#include <array>

#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

using source::Symbol;

std::string_view line_at(const std::vector<std::string_view>& lines, std::int64_t line) {
  if (line < 1 || line > static_cast<std::int64_t>(lines.size())) return "";
  return lines[static_cast<std::size_t>(line - 1)];
}

// Takes characters until the declaration is complete.
class Declaration {
 public:
  // False when it is.
  bool take(std::string_view line) {
    if (!text_.empty() && text_.back() != ' ' && text_.back() != '(') text_ += ' ';
    for (const char c : utils::strip(line)) {
      if (text_.size() >= kLongestSignature) return false;
      if (depth_ == 0 && (c == '{' || c == ';')) return false;
      if (c == '(' || c == '[') ++depth_;
      if (c == ')' || c == ']') depth_ = std::max(depth_ - 1, 0);
      const bool is_blank = c == ' ' || c == '\t';
      if (!is_blank || (!text_.empty() && text_.back() != ' ')) text_ += is_blank ? ' ' : c;
    }
    return depth_ > 0;
  }

  std::string text() const { return std::string(utils::strip(utils::utf8_prefix(text_, kLongestSignature))); }

 private:
  std::string text_;
  int depth_ = 0;
};

// Whether `other` is declared inside `symbol`: its scope goes on from the symbol's.
bool is_inside(const Symbol& other, const Symbol& symbol) {
  std::string_view scope = other.scope;
  if (!symbol.scope.empty()) {
    if (!scope.starts_with(symbol.scope)) return false;
    scope.remove_prefix(symbol.scope.size());
    scope.remove_prefix(std::min(scope.find_first_not_of(":./\\"), scope.size()));
  }
  return scope.starts_with(symbol.name) &&
         (scope.size() == symbol.name.size() ||
          std::string_view(":./\\").find(scope[symbol.name.size()]) != std::string_view::npos);
}

}  // namespace

std::string signature_of(const std::vector<std::string_view>& lines, std::int64_t line) {
  Declaration declaration;
  for (std::size_t i = 0; i < kMostDeclarationLines; ++i) {
    const std::string_view next = line_at(lines, line + static_cast<std::int64_t>(i));
    if (!declaration.take(next)) break;
  }
  return utils::printable(declaration.text());
}

bool is_comment_line(std::string_view line) {
  static constexpr std::array<std::string_view, 9> kMarks{"//",     "/*", "*", "#", "--",
                                                          "\"\"\"", ";",  "@", "%"};
  const std::string_view text = utils::strip(line);
  return std::any_of(kMarks.begin(), kMarks.end(),
                     [&](std::string_view mark) { return text.starts_with(mark); });
}

Extent extent_of(const std::vector<Symbol>& symbols, std::size_t number,
                 const std::vector<std::string_view>& lines) {
  const Symbol& symbol = symbols[number];
  const auto size = std::max<std::int64_t>(static_cast<std::int64_t>(lines.size()), 1);
  Extent extent{.first = std::clamp<std::int64_t>(symbol.line, 1, size), .last = size};
  for (std::size_t i = number + 1; i < symbols.size(); ++i) {
    if (symbols[i].line <= symbol.line || is_inside(symbols[i], symbol)) continue;
    extent.last = std::clamp<std::int64_t>(symbols[i].line - 1, extent.first, size);
    while (extent.last > extent.first && is_comment_line(line_at(lines, extent.last))) --extent.last;
    break;
  }
  while (extent.last > extent.first && utils::strip(line_at(lines, extent.last)).empty()) --extent.last;
  while (extent.first > 1 && is_comment_line(line_at(lines, extent.first - 1))) --extent.first;
  return extent;
}

}  // namespace ossilar::workers::wiki
