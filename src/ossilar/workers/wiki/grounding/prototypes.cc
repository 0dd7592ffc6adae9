// By the shape of lines: a type and a name before a bracket, and a `;` where a body would be. A call in an
// inline body has no type before its name, but for a few keywords.
#include "ossilar/workers/wiki/grounding/prototypes.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/grounding/signature.h"

namespace ossilar::workers::wiki {
namespace {

bool is_name_byte(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

bool begins_none(std::string_view text) {
  static constexpr std::array<std::string_view, 14> kWords{"return",  "if",     "for",   "while", "else",
                                                           "switch",  "delete", "throw", "case",  "using",
                                                           "typedef", "goto",   "new",   "friend"};
  const std::string_view word = text.substr(
      0, static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), is_name_byte) - text.begin()));
  return word.empty() || std::find(kWords.begin(), kWords.end(), word) != kWords.end();
}

// The name before the first bracket of "static int add(int a)", if something stands before it; "" if that is
// no declaration of a function.
std::string name_in(std::string_view signature) {
  std::size_t end = signature.find('(');
  if (end == std::string_view::npos || signature.substr(0, end).find('=') != std::string_view::npos)
    return "";
  while (end > 0 && signature[end - 1] == ' ') --end;
  std::size_t begin = end;
  while (begin > 0 && is_name_byte(signature[begin - 1])) --begin;
  const std::string_view before = utils::strip(signature.substr(0, begin));
  const bool is_typed = !before.empty() && (is_name_byte(before.back()) || before.back() == '*' ||
                                            before.back() == '&' || before.back() == '>');
  return is_typed ? std::string(signature.substr(begin, end - begin)) : "";
}

// The line in which the declaration that begins in line `i` ends with `;`, or none.
bool ends_as_prototype(const std::vector<std::string_view>& lines, std::size_t i) {
  for (std::size_t last = i; last < std::min(lines.size(), i + kMostDeclarationLines); ++last) {
    const std::string_view text = lines[last].substr(0, lines[last].find("//"));
    const std::size_t mark = text.find_first_of(";{}");
    if (mark != std::string_view::npos) return text[mark] == ';';
  }
  return false;
}

// Whether a declaration may begin below this line.
bool ends_statement(std::string_view line) {
  const std::string_view text = utils::strip(line);
  return text.empty() || is_comment_line(text) || text.ends_with("*/") ||
         std::string_view(";{}:>)").find(text.back()) != std::string_view::npos;
}

}  // namespace

std::vector<NamedSymbol> prototypes_in(const std::vector<std::string_view>& lines) {
  std::vector<NamedSymbol> found;
  bool is_public = true;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string_view text = utils::strip(lines[i]);
    if (text.starts_with("public:") || text.starts_with("class ") || text.starts_with("struct "))
      is_public = true;
    if (text.starts_with("private:") || text.starts_with("protected:")) is_public = false;
    if (text.starts_with("};")) is_public = true;
    if (is_comment_line(text) || begins_none(text) || (i > 0 && !ends_statement(lines[i - 1]))) continue;
    if (text.find('(') == std::string_view::npos && text.ends_with(";")) continue;
    if (!ends_as_prototype(lines, i)) continue;
    const auto line = static_cast<std::int64_t>(i) + 1;
    std::string signature = signature_of(lines, line);
    std::string name = name_in(signature);
    if (name.empty()) continue;
    found.push_back({.symbol = {.name = std::move(name), .kind = "prototype", .scope = {}, .line = line},
                     .signature = std::move(signature),
                     .is_public = is_public,
                     .is_documented = i > 0 && is_comment_line(lines[i - 1])});
  }
  return found;
}

}  // namespace ossilar::workers::wiki
