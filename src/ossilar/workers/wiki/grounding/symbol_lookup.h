// Finding symbols of the index by name. operations/find_symbol.cc and operations/read_source.cc ask.
//
// Thread-safety: functions without state; any thread may call. Failures: none; nothing found is an empty
// list.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

struct FoundSymbol {
  const source::SourceFile* file = nullptr;  // valid as long as the index
  source::Symbol symbol;
};

struct SymbolQuery {
  // A name or a part of it, whatever its case; with `::` or `.` in it the scope before the last one must end
  // with what stands there: "Wiki::open".
  std::string name;
  bool is_whole = false;  // the name must be the symbol's own, case included
  std::string path = {};  // in this file, or below this folder; "" anywhere
  std::string kind = {};  // of this kind alone; "" of any
};

// All that fit, the best first: the name itself, then in another case, then at the beginning of a name, then
// within one; those in code before those in tests, shorter names before longer ones, then by path and line.
std::vector<FoundSymbol> find_symbols(const SymbolQuery& query, const source::SourceIndex& index);

// At most `most` names of the index that are a typing mistake away from `name`, the nearest first.
std::vector<std::string> near_symbols(const std::string& name, const source::SourceIndex& index,
                                      std::size_t most);

}  // namespace ossilar::workers::wiki
