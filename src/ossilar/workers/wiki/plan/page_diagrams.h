// Draws the diagrams of a page, as Mermaid. host/orchestrator.cc asks for them in each draft of a save.
//
// Thread-safety: no state is kept, so any thread may call it. It does not fail: an id without a plan is drawn
// by its id.
#pragma once

#include <string>
#include <vector>

#include "ossilar/workers/wiki/plan/module_graph.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// A diagram as data, for those who draw it otherwise (web/diagram_layout.h).
struct ModuleDiagram {
  std::string caption;
  // Page ids: what depends, and what it depends on. Each once, in order. Views of the plans and the graph.
  std::vector<ModuleGraph::Edge> edges;
};

// The diagrams worth showing on the page: for `architecture` and `overview` the dependencies between the top
// modules, for a module its neighbours and its children's dependencies. None where there is nothing to see.
// At most 24 nodes and 60 edges each: of a large graph the most connected nodes are shown, and the caption
// counts the rest. The same plan and graph give the same diagrams.
std::vector<ModuleDiagram> module_diagrams(const PagePlan& plan, const Plans& plans,
                                           const ModuleGraph& graph);

// The same as Mermaid.
std::vector<Diagram> page_diagrams(const PagePlan& plan, const Plans& plans, const ModuleGraph& graph);

}  // namespace ossilar::workers::wiki
