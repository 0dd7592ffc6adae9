// What the command prints, and where: answers and tables on standard output, everything about the run on
// standard error. In JSON mode standard output gets exactly one document.
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

// Text for a line on a terminal. Whatever it is made from goes through utils::printable_line(), so that there
// is no other way to Output::line(); Output::styled() alone adds escapes.
class Shown {
 public:
  // Implicit, so that texts can be added as they are.
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

  // A line of human text on standard output, nothing in JSON mode.
  void line(const Shown& text = {});

  // `text` in a style, if standard output shows colours.
  Shown styled(Style style, std::string_view text) const;

  // Columns under their heads, as wide as their longest cell; the last is not padded. Cells may be styled.
  struct Cell {
    std::string text;
    Style style = Style::plain;
  };
  void table(const std::vector<std::string>& heads, const std::vector<std::vector<Cell>>& rows);

  // Text from a page as it is; on a terminal with its control characters made visible.
  void raw(std::string_view text);

  // The one document of JSON mode, nothing otherwise. Control characters and the marks that turn text around
  // stand as \u escapes; of a text that is not UTF-8, U+FFFD takes the place of what is none.
  void document(const Map& value);

  // A line on standard error: "ossilar: MESSAGE".
  static void diagnostic(std::string_view message);

  // Whether everything has reached standard output.
  bool flush();

 private:
  void emit(const std::string& text);
  bool json_;
  bool terminal_;
  bool color_;
};

// The numbers of columns that `text` takes on a terminal: one a character, none for combining marks, two for
// wide East Asian characters (utf8proc's widths).
std::size_t display_width(std::string_view text);

}  // namespace ossilar::cli
