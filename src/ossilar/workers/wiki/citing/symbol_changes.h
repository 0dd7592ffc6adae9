// Which functions and types of a file were added, removed or changed between two versions of it: what the
// author of a page is told of the rest of a file that it cites (asking/what_changed.cc).
//
// Thread-safety: a function without state; any thread may call. Nothing here fails.
#pragma once

#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/citing/lines.h"

namespace ossilar::workers::wiki {

// By their full_name(), in the order of the file, each once. Namespaces and packages are left out.
struct SymbolChanges {
  std::vector<std::string> added, removed, changed;
};

// The symbols are those of the texts. The end of a symbol is not known, so its lines are those up to the next
// one.
SymbolChanges symbol_changes(const LineText& before, const std::vector<source::Symbol>& then,
                             const LineText& after, const std::vector<source::Symbol>& now);

}  // namespace ossilar::workers::wiki
