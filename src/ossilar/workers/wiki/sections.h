// The sections of an authored text: each from its `##` heading (or Setext level 2) to the next heading of
// level 1 or 2, as CommonMark reads them; level-3 headings and below belong to the section they stand in.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::workers::wiki {

struct Section {
  std::string heading;    // plain text
  std::string_view text;  // from its heading to its end, a part of the text that was given
  std::size_t below = 0;  // where in `text` the heading's own lines end
};

std::vector<Section> sections_of(std::string_view body);

// What two headings that are the same have in common.
std::string heading_key(std::string_view heading);

// Whether both name the same section: caseless, with or without `##` marks, blanks and inline markup.
bool same_heading(std::string_view a, std::string_view b);

// `body` with the first section that `heading` names replaced by `text`, or none when there is no such
// section. A `text` that does not begin with that heading keeps the stored one, and of a generated part in
// `text` nothing is taken. No byte outside the section changes, and what follows it is read as before: a code
// fence that `text` leaves open is closed. Replacing a section by its own text (section_text) gives `body`
// back. The line ends of `body` are normalised.
std::optional<std::string> replace_section(std::string_view body, std::string_view heading,
                                           std::string_view text);

// The first section that `heading` names, its heading included, or none.
std::optional<std::string> section_text(std::string_view body, std::string_view heading);

}  // namespace ossilar::workers::wiki
