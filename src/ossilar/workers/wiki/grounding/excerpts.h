// Parts of source files with line numbers, so that they can be cited. grounding.cc calls all of it.
//
// Threads: functions without state, to be called from any thread. Failures: none; a file of which nothing is
// worth showing gives "".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

// Files that excerpts are taken from. A dozen get a kilobyte each at worst; more would get too few lines
// each.
inline constexpr std::size_t kExcerptFiles = 12;

// The symbols of the file, those that tell most about it first. Types and functions come before all other
// kinds; in both groups, what is declared at file level comes before what is inside something else, and types
// before functions. Otherwise in the order of the file.
std::vector<source::Symbol> telling_symbols(const source::SourceFile& file);

// A Markdown heading with the file's path, and a code block with lines of `text`, the file's text: its
// beginning, then what surrounds its telling symbols, then the rest, as many as `room` bytes allow. "" when
// there is no room for anything worth showing. The fence is longer than any run of backticks in the block.
std::string file_excerpt(const source::SourceFile& file, std::string_view text, std::size_t room);
// The same around these symbols, the first of them first.
std::string file_excerpt(const source::SourceFile& file, std::string_view text, std::size_t room,
                         const std::vector<source::Symbol>& symbols);

// A heading and a code block with the numbered lines from `first` to `last`, as many as `room` bytes allow;
// "" when there is none of them, or no room.
std::string lines_excerpt(const std::string& path, std::string_view text, std::int64_t first,
                          std::int64_t last, std::size_t room);

// A path or name fit for one line: control characters are escaped, line feeds and tabs are blanks. Marks of
// Markdown stay.
std::string one_line(std::string_view text);

}  // namespace ossilar::workers::wiki
