// What the command prints, and where: answers and tables on standard output, everything about the run on
// standard error. In JSON mode standard output gets exactly one document.
//
// app.cc makes one Output for a run and hands it to the command. It belongs to the main thread; diagnostic()
// alone may be called from any. A failed write is not reported where it happens but by flush(), at the end of
// the run.
#pragma once

#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/utils/text.h"

namespace ossilar::cli {

enum class ColorChoice { automatic, always, never };

enum class Style { plain, bold, dim, good, warn, bad };

// Text for a line on a terminal, without control characters. Output::line() takes nothing else, and making
// one cleans the text (utils::printable_line()), so no caller can forget to: paths and page texts come from
// anywhere. Only Output::styled() adds escapes, after the cleaning.
class Shown {
 public:
  // Implicit, so that strings can be passed and appended as they are.
  template <class Text>
  requires std::convertible_to<const Text&, std::string_view> Shown(const Text& text)
      : text_(utils::printable_line(text)) {}
  Shown() = default;

  const std::string& text() const { return text_; }
  Shown& operator+=(const Shown& more) {
    text_ += more.text_;
    return *this;
  }
  friend Shown operator+(Shown text, const Shown& more) { return text += more; }

 private:
  friend class Output;
  std::string text_;
};

class Output {
 public:
  Output(bool json, ColorChoice color);

  bool is_json() const { return json_; }

  // Prints a line of human text on standard output; nothing in JSON mode.
  void line(const Shown& text = {});

  // `text` in a style, if standard output shows colours.
  Shown styled(Style style, std::string_view text) const;

  // Prints columns under their heads, as wide as their widest cell on a terminal. No line ends in blanks.
  // Each row has as many cells as there are heads, or fewer.
  struct Cell {
    std::string text;
    Style style = Style::plain;
  };
  void table(const std::vector<std::string>& heads, const std::vector<std::vector<Cell>>& rows);

  // Prints text of a page byte for byte, so that a redirection gives the file's text; on a terminal with its
  // control characters made visible. Nothing in JSON mode.
  void raw(std::string_view text);

  // Prints the one document of JSON mode; nothing otherwise. Control characters and bidirectional formatting
  // characters are written as \u escapes, bytes that are not UTF-8 as U+FFFD.
  void document(const Map& value);

  // Prints a line on standard error, in JSON mode too: "ossilar: MESSAGE".
  static void diagnostic(std::string_view message);

  // Writes what is buffered. False when this or any write before it failed.
  bool flush();

 private:
  void emit(const std::string& text);
  bool json_;
  bool terminal_;
  bool color_;
};

// The number of columns that `text` takes on a terminal: one a character, none for combining marks, two for
// wide East Asian characters (utf8proc's widths). Bytes that are not UTF-8 count nothing.
std::size_t display_width(std::string_view text);

}  // namespace ossilar::cli
