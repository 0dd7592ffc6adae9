#include "ossilar/workers/wiki/module_graph.h"

#include <string_view>
#include <unordered_map>
#include <utility>

#include "ossilar/workers/wiki/import_resolver.h"

namespace ossilar::workers::wiki {
namespace {

// Path to the id of the page that it belongs to.
using Owners = std::unordered_map<std::string_view, std::string_view>;

Owners owners_of(const Plans& plans) {
  Owners owners;
  for (std::size_t i = 0; i < plans.size(); ++i) {
    const PagePlan& plan = plans[i];
    if (!plan_type(plan).unit) continue;
    for (const std::string& path : plan.source_files) owners.try_emplace(path, plan.page_id);
  }
  return owners;
}

}  // namespace

std::string resolve_import(const source::SourceIndex& index, const source::SourceFile& file,
                           const std::string& import) {
  return std::string(ImportResolver(index).resolve(file, import));
}

ModuleGraph::ModuleGraph(Dependencies edges) : on(std::move(edges)) {
  for (const auto& [from, targets] : on)
    for (const std::string& to : targets) by[to].insert(from);
}

ModuleGraph module_graph(const Plans& plans, const source::SourceIndex& index) {
  const ImportResolver resolver(index);
  const Owners owners = owners_of(plans);
  Dependencies edges;
  for (const auto& file : index.files()) {
    const auto owner = owners.find(file->path);
    if (owner == owners.end()) continue;
    for (const std::string& import : file->imports.all()) {
      const auto target = owners.find(resolver.resolve(*file, import));
      if (target == owners.end() || target->second == owner->second) continue;
      edges[std::string(owner->second)].emplace(target->second);
    }
  }
  return ModuleGraph(std::move(edges));
}

}  // namespace ossilar::workers::wiki
