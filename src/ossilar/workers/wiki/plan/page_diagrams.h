// Draws the diagrams of a page, as Mermaid.
#pragma once

#include <vector>

#include "ossilar/workers/wiki/plan/module_graph.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The diagrams worth showing on the page: for `architecture` and `overview` the dependencies between the top
// modules, for a module its neighbours and its children's dependencies. None where there is nothing to see.
// Bounded in size: of a large graph the most connected nodes are shown and the rest is counted.
std::vector<Diagram> page_diagrams(const PagePlan& plan, const Plans& plans, const ModuleGraph& graph);

}  // namespace ossilar::workers::wiki
