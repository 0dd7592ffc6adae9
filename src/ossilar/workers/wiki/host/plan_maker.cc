// A plan is made in three steps: derived from the tree, given the ids of saved pages, amended by the
// configuration. What each step gives is kept, so that a save costs no walk over the tree, and one that
// changes no id leaves the plan the object that it is: title index, digests and module graph are made for a
// plan.
//
// The ids come before the configuration, so an entry amends the page that has its id by then.
#include "ossilar/workers/wiki/host/plan_maker.h"

#include <algorithm>
#include <set>
#include <utility>

#include "ossilar/utils/error.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/plan/kept_ids.h"
#include "ossilar/workers/wiki/plan/plan_entries.h"
#include "ossilar/workers/wiki/plan/planner.h"

namespace ossilar::workers::wiki {
namespace {

StringSet named_in(const WikiConfig& config) {
  StringSet named;
  for (const PageEntry& entry : config.pages) {
    named.insert(entry.id);
    if (entry.parent) named.insert(*entry.parent);
    if (entry.related) named.insert(entry.related->begin(), entry.related->end());
  }
  return named;
}

// An entry without sources and type only amends what the tree suggests, and a page keeps its id for it.
StringSet defined_in(const WikiConfig& config) {
  StringSet defined;
  for (const PageEntry& entry : config.pages) {
    if (entry.sources || entry.type) defined.insert(entry.id);
  }
  return defined;
}

// Those of a module alone: no other page is looked for by its files. A page without sources has the files
// that it cites instead.
std::vector<SavedFile> files_of(const Map& row) {
  std::set<std::string> paths, cited;
  for (const Map& citation : utils::json_member(row, "citations"))
    cited.insert(utils::string_member(citation, "path"));
  for (const Map& file : utils::json_member(row, "source_files")) paths.insert(utils::text_form(file));
  if (paths.empty()) paths = cited;
  const Map hashes = utils::json_member(row, "source_hashes");
  std::vector<SavedFile> files;
  files.reserve(paths.size());
  for (const std::string& path : paths) {
    if (path == kSteeringSource) continue;
    const source::ContentHash content(utils::string_member(hashes, path));
    files.push_back({.path = path, .content = content, .is_cited = cited.count(path) > 0});
  }
  return files;
}

// A row that is damaged says nothing of its files; `ossilar check` names it.
SavedPage saved_page(const Map& row) {
  SavedPage page{.type = utils::string_member(row, "page_type"), .files = {}};
  try {
    if (page.type == "module") page.files = files_of(row);
  } catch (const utils::Error&) {
    page.files.clear();
  }
  return page;
}

bool same_pages(const Plans& plans, const std::vector<PagePlan>& pages) {
  if (plans.size() != pages.size()) return false;
  for (std::size_t i = 0; i < pages.size(); ++i) {
    if (plans[i] != pages[i]) return false;
  }
  return true;
}

}  // namespace

PlanMaker::PlanMaker(const WikiConfig& config, std::string repository_name)
    : config_(config),
      repository_name_(std::move(repository_name)),
      named_(named_in(config)),
      defined_(defined_in(config)) {}

std::shared_ptr<const PlannedWiki> PlanMaker::plan(std::shared_ptr<const source::SourceIndex> index,
                                                   const store::StoredRows& rows) {
  if (take_rows(rows) || derived_from_ != index) is_due_ = true;
  if (is_due_) make(std::move(index));
  is_due_ = false;
  return planned_;
}

// Whether any page came, went, or changed in what the plan is made from.
bool PlanMaker::take_rows(const store::StoredRows& rows) {
  bool changed = false;
  for_each_difference(rows_, rows, [&](const std::string& page_id, const Map*, const Map* row) {
    if (defined_.count(page_id) > 0) return;
    const auto known = saved_.find(page_id);
    if (row == nullptr) {
      changed |= known != saved_.end();
      saved_.erase(page_id);
      return;
    }
    SavedPage page = saved_page(*row);
    if (known != saved_.end() && known->second == page) return;
    saved_.insert_or_assign(page_id, std::move(page));
    changed = true;
  });
  rows_ = rows;
  return changed;
}

void PlanMaker::make(std::shared_ptr<const source::SourceIndex> index) {
  if (derived_from_ != index) {
    derived_ = derive_plan(*index, repository_name_);
    derived_from_ = index;
  }
  std::vector<PagePlan> kept = keep_ids(derived_, saved_, *index, named_);
  const bool is_same_index = planned_ != nullptr && planned_->index == index;
  if (is_same_index && kept == kept_) return;
  std::vector<PagePlan> pages = amend_plan(kept, config_, *index);
  // The same records, where the sources changed and no page did: caches that are made for the plan stay.
  const bool is_same_plan = planned_ != nullptr && same_pages(planned_->plans, pages);
  planned_ = std::make_shared<const PlannedWiki>(std::move(index),
                                                 is_same_plan ? planned_->plans : Plans(std::move(pages)));
  kept_ = std::move(kept);
}

}  // namespace ossilar::workers::wiki
