// Parts of source files with line numbers, so that they can be cited.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

// The symbols of the file, those first that tell most about it: types, then functions, and of these the ones
// that stand by themselves before the members of others. Valid as long as the file.
std::vector<source::Symbol> telling_symbols(const source::SourceFile& file);

// A Markdown heading with the file's path and a code block with the beginning of `text`, the file's text, and
// what surrounds its telling symbols, as many lines as fit into `room` bytes; "" when not even the beginning
// fits. The fence is longer than any run of backticks in the block.
std::string file_excerpt(const source::SourceFile& file, std::string_view text, std::size_t room);

// A path or name fit for one line of Markdown: no control characters, no line ends.
std::string one_line(std::string_view text);

}  // namespace ossilar::workers::wiki
