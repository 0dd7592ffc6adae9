// A state is computed whenever it is asked for. Storing "stale" when a source changes would need a process
// that watches at that moment, and a checkout that goes back would leave pages stale that match again. Only
// what no hash can tell is stored, as a mark: that a page which this one builds on changed its abstract.
//
// Hashes are compared and not times, as a clone or a switch of branches renews the times of files whose
// content is the same.
#include "ossilar/workers/wiki/citing/page_state.h"

#include <algorithm>

#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/link_text.h"

namespace ossilar::workers::wiki {
namespace {

// Files that a reason names; the rest is counted. A reason is read on one line, among those of other pages.
constexpr std::size_t kMostNamed = 5;

void add_reason(std::vector<std::string>& reasons, const char* what, std::vector<std::string> files) {
  if (files.empty()) return;
  const std::size_t more = files.size() > kMostNamed ? files.size() - kMostNamed : 0;
  files.resize(files.size() - more);
  std::string reason = std::string(what) + ": " + utils::join(files, ", ");
  if (more > 0) reason += " and " + std::to_string(more) + " more";
  reasons.push_back(std::move(reason));
}

// How the sources differ from those that the page was written from. `added` are files that the plan has given
// the page since.
struct SourceChanges {
  std::vector<std::string> changed, removed, added;
  bool steering = false;
};

SourceChanges source_changes(const Map& row, const PagePlan* plan, const source::SourceIndex& index,
                             const std::string& steering) {
  SourceChanges changes;
  const Map hashes = utils::json_member(row, "source_hashes");
  for (const auto& [file, hash] : hashes.items()) {
    if (file == kSteeringSource) continue;
    const source::SourceFile* now = index.find(file);
    if (now == nullptr) {
      changes.removed.push_back(file);
    } else if (!hash.is_string() || now->sha256.hex() != hash.get_ref<const std::string&>()) {
      changes.changed.push_back(file);
    }
  }
  if (plan != nullptr) {
    for (const std::string& file : plan->stored_source_files()) {
      if (!hashes.contains(file)) changes.added.push_back(file);
    }
  }
  // "" stands for no steering on both sides, so steering that came or went counts as changed.
  const std::string then = utils::string_member(hashes, kSteeringSource);
  changes.steering = then != (steering.empty() ? "" : utils::sha256_hex(steering));
  return changes;
}

bool is_unverified(const Map& row) { return utils::string_member(row, "status") == kUnverified; }

// Why the page is stale, "" if it is not. A page that left the plan has that one reason: no save can mend it.
std::string stale_reason(const Map& row, const PagePlan* plan, const std::string& mark,
                         const source::SourceIndex& index, const std::string& steering) {
  if (plan == nullptr) return "no longer in the plan";
  if (is_unverified(row)) return mark;  // it has no hashes to compare
  SourceChanges changes = source_changes(row, plan, index, steering);
  std::vector<std::string> reasons;
  add_reason(reasons, "changed", std::move(changes.changed));
  add_reason(reasons, "removed", std::move(changes.removed));
  add_reason(reasons, "added", std::move(changes.added));
  if (changes.steering) reasons.emplace_back("the steering for every page changed");
  if (!mark.empty()) reasons.push_back(mark);
  return utils::join(reasons, "; ");
}

PageState state_of_row(const std::string& page_id, const Map& row, std::string reason) {
  PageState state;
  state.page_id = page_id;
  state.title = utils::string_member(row, "title");
  state.type = utils::string_member(row, "page_type");
  state.parent = utils::string_member(row, "parent_section");
  state.level = utils::member(row, "level").is_number_integer() ? row.at("level").get<int>() : 0;
  // An unverified page with a reason to be stale counts as stale: the reason says more.
  state.condition = reason.empty() ? PageCondition::ok : PageCondition::stale;
  if (reason.empty() && is_unverified(row)) {
    state.condition = PageCondition::unverified;
    reason = "its file does not record its sources; read it and save it";
  }
  state.reason = std::move(reason);
  state.citations = static_cast<std::int64_t>(utils::json_member(row, "citations").size());
  const Map cache = build_cache_of(&row);
  const Map& words = utils::member(cache, "words");
  state.words = words.is_number_integer() ? words.get<std::int64_t>() : 0;
  return state;
}

PageState missing_page(const PagePlan& plan) {
  PageState state;
  state.page_id = plan.page_id;
  state.title = plan.title;
  state.type = plan.type;
  state.parent = plan.parent;
  state.level = plan.level;
  return state;
}

}  // namespace

const char* condition_name(PageCondition condition) {
  switch (condition) {
    case PageCondition::missing:
      return "missing";
    case PageCondition::ok:
      return "ok";
    case PageCondition::stale:
      return "stale";
    case PageCondition::unverified:
      return "unverified";
  }
  return "";
}

const char* condition_meaning(PageCondition condition) {
  switch (condition) {
    case PageCondition::missing:
      return "is not written yet";
    case PageCondition::ok:
      return "matches the source";
    case PageCondition::stale:
      return "no longer matches the source";
    case PageCondition::unverified:
      return "was written by hand, nobody knows against which sources";
  }
  return "";
}

std::map<std::string, std::string> source_hashes(const std::vector<std::string>& files,
                                                 const source::SourceIndex& index,
                                                 const std::string& steering) {
  std::map<std::string, std::string> hashes;
  for (const std::string& path : files) {
    const source::SourceFile* file = index.find(path);
    hashes[path] = file != nullptr ? file->sha256.hex() : "";
  }
  if (!steering.empty()) hashes[kSteeringSource] = utils::sha256_hex(steering);
  return hashes;
}

std::vector<PageState> page_states(const Plans& plans, const store::StoredRows& rows,
                                   const std::map<std::string, std::string>& marks,
                                   const source::SourceIndex& index, const std::string& steering) {
  std::vector<PageState> states;
  const auto add_stored = [&](const std::string& page_id, const Map& row) {
    const auto mark = marks.find(page_id);
    states.push_back(state_of_row(
        page_id, row,
        stale_reason(row, plans.find(page_id), mark == marks.end() ? "" : mark->second, index, steering)));
  };
  for (std::size_t i = 0; i < plans.size(); ++i) {
    const Map* row = rows.find(plans[i].page_id);
    if (row != nullptr) {
      add_stored(plans[i].page_id, *row);
    } else {
      states.push_back(missing_page(plans[i]));
    }
  }
  rows.for_each([&](const std::string& page_id, const Map& row) {
    if (plans.find(page_id) == nullptr) add_stored(page_id, row);
  });
  return states;
}

}  // namespace ossilar::workers::wiki
