// Which planned pages' sources depend on which others', from the includes and imports in them.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The path of the indexed file that `file`'s `import` means, or "" for one outside the repository or not
// resolved. Takes as long as the index is large; for many imports make one ImportResolver.
std::string resolve_import(const source::SourceIndex& index, const source::SourceFile& file,
                           const std::string& import);

// Page id to page ids, itself left out; a page with none has no entry.
using Dependencies = std::map<std::string, std::set<std::string>, std::less<>>;

// The same edges from both ends, so that what a page is about does not take a walk over all.
struct ModuleGraph {
  ModuleGraph() = default;
  explicit ModuleGraph(Dependencies edges);

  Dependencies on;  // what a page depends on
  Dependencies by;  // what depends on it
};

// The dependencies between the unit pages of `plans`. A file belongs to the first page in order that lists
// it.
ModuleGraph module_graph(const Plans& plans, const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
