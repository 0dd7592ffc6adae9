// The state of each page: missing, ok, stale, unverified, and why.
//
// Commands and sessions ask through host/wiki_reader.cc, `ossilar check` in check/inspection.cc. Saves take
// the hashes that staleness compares from here too (host/orchestrator.cc), so both sides agree on their form.
//
// Thread-safety: pure functions over snapshots, any thread may call. Nothing is stored. A row whose JSON text
// is damaged makes page_states() throw utils::Error.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// A missing page is planned and not written. A stale one no longer fits its sources, the plan, the steering,
// or a page that it builds on. An unverified one was written by hand: nothing says against which sources, so
// there is nothing to compare them with.
enum class PageCondition { missing, ok, stale, unverified };

// In the order in which counts are shown.
inline constexpr std::array kConditions{PageCondition::ok, PageCondition::stale, PageCondition::unverified,
                                        PageCondition::missing};

// "missing", "ok", "stale" or "unverified", and what it means, in words that follow "a page that".
const char* condition_name(PageCondition condition);
const char* condition_meaning(PageCondition condition);

struct PageState {
  std::string page_id;
  std::string title;
  std::string type;
  std::string parent;
  int level = 0;
  PageCondition condition = PageCondition::missing;
  std::string reason;  // of a stale page what changed, of an unverified one why it is; else ""
  std::int64_t citations = 0;
  std::int64_t words = 0;  // of prose, as counted when the row was written
};

// The `status` in the row of an unverified page. A save makes it "ok".
inline constexpr const char* kUnverified = "unverified";

// The key in a row's source hashes for the steering of every page, which stands there beside the files. Page
// records hold it too, so it must not change.
inline constexpr const char* kSteeringSource = "ossilar.toml [steering]";

// The hashes that a save puts into the row: file to SHA-256 in hexadecimal, "" for a file that is not indexed
// or was not read, and under kSteeringSource that of `steering`, if it is not empty.
std::map<std::string, std::string> source_hashes(const std::vector<std::string>& files,
                                                 const source::SourceIndex& index,
                                                 const std::string& steering);

// The states of all planned pages in the order of the plan, then of stored pages that the plan no longer has.
// `marks` are the stale marks by page id, `steering` is the text for every page. Time grows with all pages
// and their sources.
std::vector<PageState> page_states(const Plans& plans, const store::StoredRows& rows,
                                   const std::map<std::string, std::string>& marks,
                                   const source::SourceIndex& index, const std::string& steering);

}  // namespace ossilar::workers::wiki
