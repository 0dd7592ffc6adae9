// The sections of an authored text: each from its `##` heading (or Setext level 2) to the next heading of
// level 1 or 2, as CommonMark reads them. Deeper headings belong to the section that they are in.
//
// A save of one section replaces it here (agent_save.cc); digests, the section cache and the lint look at
// sections; commands and sessions show a single one.
//
// Threads: functions without state, to be called from any thread. Failures: a heading that no section has is
// an empty result; every text can be read.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::workers::wiki {

struct Section {
  std::string heading;    // plain text
  std::string_view text;  // from its heading to its end; points into the text that was given
  std::size_t below = 0;  // the offset in `text` at which the heading's own lines end
};

// The sections of `body` in order; what is above the first, or below a level-1 heading, is in none.
std::vector<Section> sections_of(std::string_view body);

// The form in which headings are compared: plain text without `##` marks, case folded, single blanks.
std::string heading_key(std::string_view heading);

// Whether both name the same section: their heading_key() is the same.
bool same_heading(std::string_view a, std::string_view b);

// `body` with the first section that `heading` names replaced by `text`; none when there is no such section.
// The line ends of `body` must be normalised, those of `text` need not be.
//
// The stored heading stays, whether `text` repeats it or not, and a generated part in `text` is left out. No
// byte outside the section changes, and what follows is read as before: a code fence that `text` leaves open
// is closed. Replacing a section by its own text (section_text()) gives `body` back.
std::optional<std::string> replace_section(std::string_view body, std::string_view heading,
                                           std::string_view text);

// `body` with a section of this heading and text put behind the one that `after` names, or with none at its
// end. None when `after` names no section. `text` may begin with the heading. Other sections keep their
// bytes; behind the one before come line feeds, or a line that closes an open block, where they are needed.
std::optional<std::string> add_section(std::string_view body, std::string_view heading, std::string_view text,
                                       const std::optional<std::string>& after);

// `body` without the first section that `heading` names; none when there is no such section.
std::optional<std::string> remove_section(std::string_view body, std::string_view heading);

// Which of sections_of() `heading` names: the first whose heading is the same, else the first of the same
// heading_key(). None when there is no such section.
std::optional<std::size_t> section_number(const std::vector<Section>& sections, std::string_view heading);

// The first section that `heading` names, its heading included, or none.
std::optional<std::string> section_text(std::string_view body, std::string_view heading);

}  // namespace ossilar::workers::wiki
