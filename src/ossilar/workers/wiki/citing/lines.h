// A source file's text as numbered lines, in which blocks of lines can be found again. Citations are taken
// from it (fingerprint.h) and followed in it (follow.h).
//
// Thread-safety: an object does not change once it is made; any thread may use it. Nothing here fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/git/line_map.h"

namespace ossilar::workers::wiki {

using source::LineRange;

// How many lines there are.
inline std::int64_t length(LineRange range) { return range.last - range.first + 1; }

class LineText {
 public:
  // Lines end with a line feed. A carriage return before one is no part of the line: a checkout may add or
  // remove it without changing what is said.
  explicit LineText(std::string_view text);

  std::int64_t size() const { return static_cast<std::int64_t>(starts_.size()) - 1; }
  // Whether all lines of `range` exist. The members below may be asked for such lines alone.
  bool has(LineRange range) const;
  // The line of this number, without its line feed.
  std::string_view line(std::int64_t number) const;
  // The lines, each with a line feed.
  std::string_view block(LineRange range) const;
  // All lines, each with a line feed.
  std::string_view all() const { return std::string_view(text_).substr(1); }

  // The numbers of the lines at which `block` stands, whole lines with a line feed each; at most `most`.
  std::vector<std::int64_t> places_of(std::string_view block, std::size_t most) const;

 private:
  std::string text_;                 // a line feed first, so that every line stands between two of them
  std::vector<std::size_t> starts_;  // of each line in text_, and the end
};

// What of a block can be evidence: its letters and digits; a byte of a character beyond ASCII counts as one.
std::size_t letters_in(std::string_view text);

// The text without the white space that formatting changes: lines without leading and trailing blanks, runs
// of blanks as one, blank lines left out.
std::string without_formatting(std::string_view text);

}  // namespace ossilar::workers::wiki
