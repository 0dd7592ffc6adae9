// The lines with which a symbol is declared, on one line, and where what it declares may end. The symbol tool
// gives a symbol's name and first line alone.
//
// Thread-safety: functions without state; any thread may call. Failures: none; a line past the end of the
// text, which may be newer than the index, gives "" and the text's last line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

// Lines of a declaration that are read; more are a table.
inline constexpr std::size_t kMostDeclarationLines = 12;

// Bytes; a longer signature is cut.
inline constexpr std::size_t kLongestSignature = 160;

// The declaration that begins in `line` of `lines`, up to its body, with single blanks: "int add(int a, int
// b)".
std::string signature_of(const std::vector<std::string_view>& lines, std::int64_t line);

// Lines from 1, both included.
struct Extent {
  std::int64_t first = 1, last = 1;
};

// The lines of `symbols[number]`, from the comment above it to the line before the next symbol that is not
// inside it. `symbols` are a file's, in order. May hold more than the symbol where text between two symbols
// belongs to neither.
Extent extent_of(const std::vector<source::Symbol>& symbols, std::size_t number,
                 const std::vector<std::string_view>& lines);

// Whether the line above a declaration is a comment about it, in most languages.
bool is_comment_line(std::string_view line);

}  // namespace ossilar::workers::wiki
