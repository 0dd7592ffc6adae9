// Whether a page still says what the source says.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// An unverified page was never saved here, and its file does not say against which sources it was written: a
// hand wrote it.
enum class PageCondition { missing, ok, stale, unverified };

// "missing", "ok", "stale" or "unverified".
const char* condition_name(PageCondition condition);

struct PageState {
  std::string page_id;
  std::string title;
  std::string type;
  std::string parent;
  int level = 0;
  PageCondition condition = PageCondition::missing;
  std::string reason;  // of a stale page what changed, of an unverified one why it is
  std::int64_t citations = 0;
  std::int64_t words = 0;
};

struct StateCounts {
  std::size_t ok = 0, stale = 0, missing = 0, unverified = 0;
};
StateCounts count_states(const std::vector<PageState>& pages);

// The `status` of a row that says that its page is unverified; a save makes it "ok".
inline constexpr const char* kUnverified = "unverified";

// The key beside the files in a row's source hashes that stands for the steering for every page.
inline constexpr const char* kSteeringSource = "ossilar.toml [steering]";

// The hashes that staleness compares: of each of `files` ("" for one that is not indexed or not read), and
// under kSteeringSource of `steering` when there is any.
std::map<std::string, std::string> source_hashes(const std::vector<std::string>& files,
                                                 const source::SourceIndex& index,
                                                 const std::string& steering);

// The states of all planned pages in the order of the plan, then of stored pages that no plan has any more.
// `marks` are stale marks by page id.
std::vector<PageState> page_states(const Plans& plans, const store::StoredRows& rows,
                                   const std::map<std::string, std::string>& marks,
                                   const source::SourceIndex& index, const std::string& steering);

}  // namespace ossilar::workers::wiki
