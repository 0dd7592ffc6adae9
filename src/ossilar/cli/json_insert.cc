// Works on the text and not on a parsed value, so that all bytes of the file's author stay. One scan finds
// the braces: it counts depth and skips strings, in which braces mean nothing. It does not check that the
// text is JSON, because the caller has parsed it.
#include "ossilar/cli/json_insert.h"

#include <algorithm>

namespace ossilar::cli {
namespace {

constexpr std::string_view kBlank = " \t\r\n";

// The offsets of an object's braces.
struct Braces {
  std::size_t open = std::string::npos;
  std::size_t close = std::string::npos;
};

// The offset behind the string that opens at `at`; a backslash hides the character after it. Never beyond the
// end.
std::size_t end_of_string(std::string_view text, std::size_t at) {
  for (++at; at < text.size() && text[at] != '"'; ++at)
    if (text[at] == '\\') ++at;
  return std::min(at + 1, text.size());
}

// The object under the top-level key `parent`, or the whole for "". Of several under the same key the last,
// as it is for a parser.
Braces find_object(std::string_view text, std::string_view parent) {
  Braces found;
  const int wanted_depth = parent.empty() ? 1 : 2;
  bool wanted = parent.empty();
  int depth = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '"') {
      const std::size_t end = end_of_string(text, at);
      // A value of the same text does no harm: before anything opens, another key follows and resets this.
      if (depth == 1 && !parent.empty()) wanted = text.substr(at + 1, end - at - 2) == parent;
      at = end - 1;
    } else if (c == '{' || c == '[') {
      if (++depth == wanted_depth && wanted) found = {.open = at};
    } else if (c == '}' || c == ']') {
      if (depth-- == wanted_depth && wanted) found.close = at;
    }
  }
  return found;
}

// One step of indentation: that of the first member, if it begins the second line of the text. Else two
// blanks, as client_setup.cc writes.
std::string indentation(std::string_view text) {
  const std::size_t line = text.find('\n');
  if (line == text.npos) return "  ";
  const std::size_t end = text.find_first_not_of(" \t", line + 1);
  if (end == text.npos || end == line + 1) return "  ";
  return std::string(text.substr(line + 1, end - line - 1));
}

// `value` on several lines. dump() only knows line feeds and one character to indent by, so each line feed is
// replaced by `newline`, which brings the indentation of the place; a step of mixed characters becomes one of
// its first.
std::string on_lines(const Map& value, const std::string& step, const std::string& newline) {
  const std::string lines = value.dump(static_cast<int>(step.size()), step.front());
  std::string text;
  for (const char c : lines) {
    if (c == '\n') text += newline;
    if (c != '\n') text += c;
  }
  return text;
}

}  // namespace

std::optional<std::string> insert_member(const std::string& text, std::string_view parent,
                                         std::string_view key, const Map& value) {
  const Braces braces = find_object(text, parent);
  if (braces.close == std::string::npos) return std::nullopt;
  const std::string step = indentation(text);
  const std::string newline = text.find("\r\n") == std::string::npos ? "\n" : "\r\n";
  const std::string outer = newline + (parent.empty() ? "" : step);
  const std::string inner = outer + step;

  // The end of the last member, or the open brace of an object without one.
  const std::size_t last = text.find_last_not_of(kBlank, braces.close - 1);
  // What precedes the closing brace stays, unless that is no line break: the brace gets one then, as the new
  // member has lines of its own.
  std::string before_close = text.substr(last + 1, braces.close - last - 1);
  if (before_close.find('\n') == std::string::npos) before_close = outer;
  return text.substr(0, last + 1) + (last == braces.open ? "" : ",") + inner + Map(key).dump() + ": " +
         on_lines(value, step, inner) + before_close + text.substr(braces.close);
}

}  // namespace ossilar::cli
