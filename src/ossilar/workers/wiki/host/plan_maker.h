// Makes the plan of a wiki from its source index, its configuration and the pages that were saved. Wiki has
// one and asks it for every preparation (host/wiki.cc).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/host/planned_wiki.h"
#include "ossilar/workers/wiki/plan/saved_page.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Thread-safety: none; Wiki calls it under a mutex.
class PlanMaker {
 public:
  // `config` must outlive it. `repository_name` is for titles and descriptions.
  PlanMaker(const WikiConfig& config, std::string repository_name);

  // The plan by `index` and `rows`: the one of the previous call, while nothing changed that it is made from.
  // Of the rows that is which pages there are, the sources and types of modules, and which files they cite. A
  // call where nothing did costs nothing, and any other the rows that differ, beside the making of a plan.
  //
  // Throws utils::ConfigError as amend_plan(); the next call then makes the plan again.
  std::shared_ptr<const PlannedWiki> plan(std::shared_ptr<const source::SourceIndex> index,
                                          const store::StoredRows& rows);

 private:
  bool take_rows(const store::StoredRows& rows);
  void make(std::shared_ptr<const source::SourceIndex> index);

  const WikiConfig& config_;
  const std::string repository_name_;
  StringSet named_;         // page ids that the configuration names
  StringSet defined_;       // page ids of which it says what they are about
  store::StoredRows rows_;  // those that saved_ is made of
  SavedPages saved_;
  std::shared_ptr<const source::SourceIndex> derived_from_;
  std::vector<PagePlan> derived_;  // by that index
  std::vector<PagePlan> kept_;     // the same with the ids of saved_, which planned_ is made of
  std::shared_ptr<const PlannedWiki> planned_;
  bool is_due_ = true;  // planned_ is not yet what the other members say
};

}  // namespace ossilar::workers::wiki
