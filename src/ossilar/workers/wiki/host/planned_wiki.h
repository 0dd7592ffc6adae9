// The plan of a wiki with the source index that it was made from, and what a page's brackets mean by both.
// plan_maker.cc makes one whenever the plan or the index changed; drafts, checks and adoption read it.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/host/title_index.h"
#include "ossilar/workers/wiki/plan/module_graph.h"
#include "ossilar/workers/wiki/plans.h"

namespace ossilar::workers::wiki {

// Immutable, so a draft keeps the one it began with while others prepare the next.
//
// Thread-safety: every member may be called from any thread.
struct PlannedWiki {
  PlannedWiki(std::shared_ptr<const source::SourceIndex> of, Plans derived)
      : index(std::move(of)), plans(std::move(derived)) {}

  // Made when first asked for: only diagrams need it, and most commands draw none.
  const ModuleGraph& graph() const {
    std::call_once(graph_made_, [this] { graph_ = module_graph(plans, *index); });
    return graph_;
  }

  const std::shared_ptr<const source::SourceIndex> index;
  const Plans plans;

 private:
  mutable std::once_flag graph_made_;
  mutable ModuleGraph graph_;
};

// What the brackets of `authored` mean on the page of `plan` (null: a page without a plan), whose title may
// be one that no row has yet.
Brackets brackets_of(const std::string& authored, const PlannedWiki& planned, const TitleIndex& titles,
                     const PagePlan* plan);

}  // namespace ossilar::workers::wiki
