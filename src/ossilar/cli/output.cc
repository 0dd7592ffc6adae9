// Everything goes through stdio's buffer and is flushed once, at the end. A check after each write would not
// help: a command cannot do anything about a full disk but report it, and app.cc does that when flush()
// fails.
#include "ossilar/cli/output.h"

#include <unistd.h>
#include <utf8proc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace ossilar::cli {
namespace {

// NO_COLOR counts when it is set to anything but "" (no-color.org). A terminal that calls itself dumb knows
// no escapes.
bool colors_wanted(ColorChoice choice, bool terminal) {
  if (choice != ColorChoice::automatic) return choice == ColorChoice::always;
  const char* no_color = std::getenv("NO_COLOR");
  const char* term = std::getenv("TERM");
  const bool dumb = term != nullptr && std::string_view(term) == "dumb";
  return terminal && !dumb && (no_color == nullptr || *no_color == '\0');
}

// SGR sequences of ECMA-48, from the eight basic colours.
const char* escape_for(Style style) {
  switch (style) {
    case Style::plain:
      return "";
    case Style::bold:
      return "\x1b[1m";
    case Style::dim:
      return "\x1b[2m";
    case Style::good:
      return "\x1b[32m";
    case Style::warn:
      return "\x1b[33m";
    case Style::bad:
      return "\x1b[31m";
  }
  return "";
}

// json_text() throws for bytes that are not UTF-8, which a message may hold that names a path. dump() can
// replace them; it is the second choice, as it sets no blanks between members.
std::string json_of(const Map& value) {
  try {
    return utils::json_text(value);
  } catch (const Map::type_error&) {
    return value.dump(-1, ' ', false, Map::error_handler_t::replace);
  }
}

}  // namespace

std::size_t display_width(std::string_view text) {
  std::size_t width = 0;
  const auto* at = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  auto left = static_cast<utf8proc_ssize_t>(text.size());
  while (left > 0) {
    utf8proc_int32_t code = 0;
    // Negative, with a code below 0, where the bytes are not UTF-8: one byte is skipped then.
    const utf8proc_ssize_t size = std::max<utf8proc_ssize_t>(utf8proc_iterate(at, left, &code), 1);
    if (code > 0) width += static_cast<std::size_t>(std::max(utf8proc_charwidth(code), 0));
    at += size;
    left -= size;
  }
  return width;
}

Output::Output(bool json, ColorChoice color)
    : json_(json), terminal_(isatty(STDOUT_FILENO) == 1), color_(colors_wanted(color, terminal_)) {}

// The result is ignored: stdio remembers a failure, and flush() asks for it.
void Output::emit(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

void Output::line(const Shown& text) {
  if (!json_) emit(text.text() + "\n");
}

// A reset follows each styled text, so styles do not nest.
Shown Output::styled(Style style, std::string_view text) const {
  Shown shown(text);
  if (color_ && style != Style::plain) shown.text_ = escape_for(style) + shown.text_ + "\x1b[0m";
  return shown;
}

void Output::table(const std::vector<std::string>& heads, const std::vector<std::vector<Cell>>& rows) {
  std::vector<std::size_t> widths;
  widths.reserve(heads.size());
  for (const std::string& head : heads) widths.push_back(display_width(head));
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], display_width(Shown(row[i].text).text()));
    }
  }
  const auto print = [&](const std::vector<Cell>& row) {
    Shown text;
    std::size_t pending = 0;  // blanks owed before the next cell, so that no line ends in blanks
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (!row[i].text.empty()) {
        text += std::string(pending, ' ') + styled(row[i].style, row[i].text);
        pending = 0;
      }
      // Two blanks between columns. Measured after the cleaning, without the escapes of a style.
      pending += widths[i] - display_width(Shown(row[i].text).text()) + 2;
    }
    line(text);
  };
  std::vector<Cell> head_row;
  head_row.reserve(heads.size());
  for (const std::string& head : heads) head_row.push_back({head, Style::dim});
  print(head_row);
  for (const auto& row : rows) print(row);
}

void Output::raw(std::string_view text) {
  if (!json_) emit(terminal_ ? utils::printable(text) : std::string(text));
}

void Output::document(const Map& value) {
  if (json_) emit(utils::printable_json(json_of(value)) + "\n");
}

// The result is ignored: there is nowhere else to say it.
void Output::diagnostic(std::string_view message) {
  std::fprintf(stderr, "ossilar: %s\n", utils::printable_line(message).c_str());
}

bool Output::flush() { return std::fflush(stdout) == 0 && std::ferror(stdout) == 0; }

}  // namespace ossilar::cli
