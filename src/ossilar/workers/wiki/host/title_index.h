// Which page a title names, for links such as [Title of a page]. Wiki::titles() keeps one and brings it up to
// date for each draft, check and adoption; planned_wiki.cc looks titles up.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "ossilar/store/repository.h"
#include "ossilar/utils/snapshot_map.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Pages by title, compared as CommonMark compares link labels. A stored page's title comes before the planned
// title of a page without a row, and both before former titles; among equals the first page id wins.
//
// Thread-safety: like a value; a copy is cheap and never changes. Nothing here fails but for want of memory.
class TitleIndex {
 public:
  // Brings the index in line with rows and plans, at the cost of the rows that differ from those of the
  // previous call; a changed plan rebuilds it.
  void update(const store::StoredRows& rows, const Plans& plans);

  // The id of the page that `label` names, or none.
  std::optional<std::string> find(std::string_view label) const;

 private:
  enum class Rank { stored, planned, former };  // in this order of precedence
  using Claim = std::pair<Rank, std::string>;   // and the page id that claims the title

  void change_claims(const std::string& page_id, const Map* row, bool add);
  void change_claim(const std::string& title, const Claim& claim, bool add);

  store::StoredRows rows_;
  Plans plans_;
  utils::SnapshotMap<std::set<Claim>> claims_;
};

}  // namespace ossilar::workers::wiki
