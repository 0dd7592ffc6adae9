// Which planned pages depend on which, by the includes and imports in their sources. host/planned_wiki.h
// makes the graph of a plan when a save first draws; page_diagrams.cc draws it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The path of the indexed file that `import` means in `file`, or "" for one outside the repository or not
// resolved. Linear in the size of the index, as it makes an ImportResolver; for many imports make one of
// those.
std::string resolve_import(const source::SourceIndex& index, const source::SourceFile& file,
                           const std::string& import);

// Which pages depend on which.
//
// Thread-safety: immutable once made. Lifetime: the ids that it returns are views of its own, valid as long
// as it is.
class ModuleGraph {
 public:
  // Page ids: what depends, and what it depends on.
  using Edge = std::pair<std::string_view, std::string_view>;

  ModuleGraph() = default;
  // `edges` in any order, with repetitions. The ids are copied.
  explicit ModuleGraph(const std::vector<Edge>& edges);

  // Each edge once, sorted by what depends, then by what it depends on.
  std::vector<Edge> edges() const;
  // What `id` depends on, and what depends on it, each in the order of the ids. Empty for an id that is in no
  // edge. Costs a binary search and what it returns.
  std::vector<std::string_view> dependencies(std::string_view id) const;
  std::vector<std::string_view> dependents(std::string_view id) const;

 private:
  // Indices into ids_. An edge is eight bytes at each end; as a page id in a set it would be a node of many
  // times that.
  using Link = std::pair<std::uint32_t, std::uint32_t>;
  using Links = std::vector<Link>;

  // The index of `id` in ids_, or where it would stand.
  std::uint32_t place_of(std::string_view id) const;
  std::vector<std::string_view> linked(const Links& links, std::string_view id) const;

  std::vector<std::string> ids_;  // in order
  Links on_;                      // what depends, what it depends on; in order
  Links by_;                      // the same turned around, in order: dependents() without a walk over all
};

// The dependencies between the unit pages of `plans`; a synthesis page describes other pages. A file belongs
// to the first page in the plan's order that lists it; an import within a page is no edge.
ModuleGraph module_graph(const Plans& plans, const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
