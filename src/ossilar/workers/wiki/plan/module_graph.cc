// Two sorted lists of index pairs, one for each direction. Each save draws its page and asks for the
// neighbours of few pages, so that must not take a walk over all edges. Maps from id to sets of ids would do
// it too, with a tree node and a page id at both ends of every edge.
#include "ossilar/workers/wiki/plan/module_graph.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

#include "ossilar/workers/wiki/plan/import_resolver.h"

namespace ossilar::workers::wiki {
namespace {

// Path of a file to the id of the page that it belongs to; views of the plans.
using Owners = std::unordered_map<std::string_view, std::string_view>;

Owners owners_of(const Plans& plans) {
  Owners owners;
  for (std::size_t i = 0; i < plans.size(); ++i) {
    const PagePlan& plan = plans[i];
    if (!plan_type(plan).unit) continue;
    // Does nothing if the path is known: the first page keeps it.
    for (const std::string& path : plan.source_files) owners.try_emplace(path, plan.page_id);
  }
  return owners;
}

template <class Value>
void make_unique(std::vector<Value>& values) {
  std::sort(values.begin(), values.end());
  values.erase(std::unique(values.begin(), values.end()), values.end());
}

}  // namespace

std::string resolve_import(const source::SourceIndex& index, const source::SourceFile& file,
                           const std::string& import) {
  return std::string(ImportResolver(index).resolve(file, import));
}

ModuleGraph::ModuleGraph(const std::vector<Edge>& edges) {
  std::vector<std::string_view> ids;
  for (const auto& [from, to] : edges) ids.insert(ids.end(), {from, to});
  make_unique(ids);
  ids_.assign(ids.begin(), ids.end());
  for (const auto& [from, to] : edges) on_.emplace_back(place_of(from), place_of(to));
  make_unique(on_);
  for (const auto& [from, to] : on_) by_.emplace_back(to, from);
  make_unique(by_);
  on_.shrink_to_fit();  // the duplicates are gone, and the graph lives as long as its plan
  by_.shrink_to_fit();
}

std::uint32_t ModuleGraph::place_of(std::string_view id) const {
  return static_cast<std::uint32_t>(std::lower_bound(ids_.begin(), ids_.end(), id) - ids_.begin());
}

std::vector<ModuleGraph::Edge> ModuleGraph::edges() const {
  std::vector<Edge> edges;
  edges.reserve(on_.size());
  for (const auto& [from, to] : on_) edges.emplace_back(ids_[from], ids_[to]);
  return edges;
}

std::vector<std::string_view> ModuleGraph::linked(const Links& links, std::string_view id) const {
  const std::uint32_t place = place_of(id);
  if (place == ids_.size() || ids_[place] != id) return {};
  std::vector<std::string_view> others;
  // No index is below 0, so this finds the first link of the page.
  for (auto at = std::lower_bound(links.begin(), links.end(), Link(place, 0));
       at != links.end() && at->first == place; ++at)
    others.emplace_back(ids_[at->second]);
  return others;
}

std::vector<std::string_view> ModuleGraph::dependencies(std::string_view id) const { return linked(on_, id); }

std::vector<std::string_view> ModuleGraph::dependents(std::string_view id) const { return linked(by_, id); }

ModuleGraph module_graph(const Plans& plans, const source::SourceIndex& index) {
  const ImportResolver resolver(index);
  const Owners owners = owners_of(plans);
  std::vector<ModuleGraph::Edge> edges;
  for (const auto& file : index.files()) {
    const auto owner = owners.find(file->path);
    if (owner == owners.end()) continue;
    for (const std::string& import : file->imports.all()) {
      const auto target = owners.find(resolver.resolve(*file, import));
      if (target == owners.end() || target->second == owner->second) continue;
      edges.emplace_back(owner->second, target->second);
    }
  }
  return ModuleGraph(edges);
}

}  // namespace ossilar::workers::wiki
