// Which planned pages' sources depend on which others', from the includes and imports in them.
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

// The path of the indexed file that `file`'s `import` means, or "" for one outside the repository or not
// resolved. Takes as long as the index is large; for many imports make one ImportResolver.
std::string resolve_import(const source::SourceIndex& index, const source::SourceFile& file,
                           const std::string& import);

// Which pages depend on which. Ids that it gives are valid as long as it is.
class ModuleGraph {
 public:
  // Page ids: what depends, and what it depends on.
  using Edge = std::pair<std::string_view, std::string_view>;

  ModuleGraph() = default;
  // In any order, and each as often as it likes.
  explicit ModuleGraph(const std::vector<Edge>& edges);

  // Each once, in order.
  std::vector<Edge> edges() const;
  // In order; none for an id that is in no edge.
  std::vector<std::string_view> dependencies(std::string_view id) const;
  std::vector<std::string_view> dependents(std::string_view id) const;

 private:
  // Places in ids_. A large graph has more edges than pages have files.
  using Link = std::pair<std::uint32_t, std::uint32_t>;
  using Links = std::vector<Link>;

  std::uint32_t place_of(std::string_view id) const;
  std::vector<std::string_view> linked(const Links& links, std::string_view id) const;

  std::vector<std::string> ids_;  // in order
  Links on_;                      // in order, as is the next: the same from the other end
  Links by_;
};

// The dependencies between the unit pages of `plans`. A file belongs to the first page in order that lists
// it.
ModuleGraph module_graph(const Plans& plans, const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
