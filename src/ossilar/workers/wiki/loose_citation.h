// References to the source in other forms than a citation's: with lines written otherwise, with a symbol in
// the place of lines, or without any. citations.cc tells them from other brackets; host/author_warnings.cc
// says what to write instead.
//
// Thread-safety: functions without state; any thread may call. Nothing here fails.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/citations.h"

namespace ossilar::workers::wiki {

// A reference to lines in another form than ours: `a.cpp:10-20`, `a.cpp#L10`,
// `a.cpp, lines 10 to 20`. Ends before it looks whether there is such a file.
std::optional<Citation> parse_loose(std::string_view label);

// Whether the label is such a reference, to lines, a symbol or the whole of an indexed file, by its
// path or by a name that no other file has.
bool is_loose_citation(const std::string& label, const source::SourceIndex& index);

// What to write in its place. Looks for a symbol in all files if its own has none of the name.
std::string loose_citation_warning(const std::string& label, const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
