// What the command prints, and where: answers and tables on standard output, everything about the run on
// standard error. In JSON mode standard output gets exactly one document.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/json.h"

namespace ossilar::cli {

enum class ColorChoice { automatic, always, never };

enum class Style { plain, bold, dim, good, warn, bad };

class Output {
 public:
  Output(bool json, ColorChoice color);

  bool is_json() const { return json_; }

  // A line of human text on standard output, nothing in JSON mode. Control characters stand as visible
  // escapes; styles come from styled().
  void line(std::string_view text = "");

  // `text` in a style, if standard output shows colours; control characters in it stand as visible escapes.
  std::string styled(Style style, std::string_view text) const;

  // Columns under their heads, as wide as their longest cell; the last is not padded. Cells may be styled.
  struct Cell {
    std::string text;
    Style style = Style::plain;
  };
  void table(const std::vector<std::string>& heads, const std::vector<std::vector<Cell>>& rows);

  // Text from a page as it is; on a terminal with its control characters made visible.
  void raw(std::string_view text);

  // The one document of JSON mode, nothing otherwise.
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
