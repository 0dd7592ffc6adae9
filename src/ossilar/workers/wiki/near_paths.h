// The path that an author may have meant by one that is not indexed. citations.cc puts it into the warning
// about a citation.
//
// Thread-safety: a function without state; any thread may call. Nothing here fails.
#pragma once

#include <cstddef>
#include <string>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

// A name with more wrong letters is another name.
inline constexpr std::size_t kMostWrong = 2;
// Longer names are not compared: the distance costs the product of the lengths.
inline constexpr std::size_t kLongestName = 100;

// Of the files with lines: one of the same name, the one whose path has the longest end in common; else one
// whose name differs by a typing mistake, or in its extension alone, those in the same folder first. "" if
// there is none. Looks at every name of the index unless one is the same.
std::string nearest_path(const std::string& path, const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
