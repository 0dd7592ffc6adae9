// The state of each page, and why: whether what it cites is still what it cited, and whether what it rests on
// is still the same.
//
// Commands and sessions ask through asking/wiki_reader.cc, `ossilar check` in check/inspection.cc. Saves take
// the hashes that staleness compares from here too (host/orchestrator.cc), so both sides agree on their form.
//
// Thread-safety: pure functions over snapshots, any thread may call. Nothing is stored. A row whose JSON text
// is damaged makes page_states() throw utils::Error.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/citing/claims.h"
#include "ossilar/workers/wiki/citing/follower.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Of several that are true of a page, the last of these holds.
enum class PageCondition {
  missing,     // planned and not written
  ok,          // what it cites and what it rests on are as they were
  drifted,     // something that it rests on changed, and nothing that it cites
  moved,       // all that it cites is there, some of it elsewhere
  unverified,  // of some of it nobody knows against which sources it was written
  stale,       // a citation changed or is gone, or the steering or a page that it builds on changed
  orphaned     // saved, and no longer planned
};

// In the order in which counts are shown.
inline constexpr std::array kConditions{
    PageCondition::ok,         PageCondition::moved,    PageCondition::drifted, PageCondition::stale,
    PageCondition::unverified, PageCondition::orphaned, PageCondition::missing};

// "missing", "ok", ..., and what it means, in words that follow "a page that".
const char* condition_name(PageCondition condition);
const char* condition_meaning(PageCondition condition);

// A citation that is not where it was, or no longer says what it said.
struct Doubt {
  std::string section;  // the heading that it stands under, "" above the first
  Citation citation;
  CitationState state = CitationState::unknown;
  std::optional<Citation> now;  // of a moved one where it is; of a changed one what stands in its place
};

// "[src/a.cc:L10-L20] moved to [src/a.cc:L14-L24]", on one line.
std::string doubt_text(const Doubt& doubt);

struct PageState {
  std::string page_id;
  std::string title;
  std::string type;
  std::string parent;
  int level = 0;
  PageCondition condition = PageCondition::missing;
  std::string reason;  // what changed, or what to do; "" for ok and missing
  std::string
      heir;  // of an orphaned page the planned and missing one that has most of what it cites; else ""
  std::vector<Doubt> doubts;  // in the order of the page's claims
  std::int64_t citations = 0;
  std::int64_t words = 0;  // of prose, as counted when the row was written
};

// What to do with an orphaned page: the commands that rename and remove it.
std::string orphan_advice(const PageState& state);

// The `status` in the row of an unverified page. A save makes it "ok".
inline constexpr const char* kUnverified = "unverified";

// The key in a row's source hashes for the steering of every page, which stands there beside the files. Page
// records hold it too, so it must not change.
inline constexpr const char* kSteeringSource = "ossilar.toml [steering]";

// The key in a row's build cache under which claims are kept whose lines did not exist any more when the page
// was saved again: a list as in `citations`.
inline constexpr const char* kLostClaims = "lost";

// And under which it is kept who confirmed the page: {"confirmed": time, "commit"} and for a part of the page
// "section".
inline constexpr const char* kConfirmations = "confirmations";

// All claims that a row remembers, those lost included. Throws utils::Error if its JSON text is damaged.
std::vector<KnownClaim> remembered_claims(const Map& row);

// The doubts among `claims`, each once.
std::vector<Doubt> doubts_of(const std::vector<KnownClaim>& claims, CitationFollower& follower);

// The hashes that a save puts into the row: file to SHA-256 in hexadecimal, "" for a file that is not indexed
// or was not read, and under kSteeringSource that of `steering`, if it is not empty.
std::map<std::string, std::string> source_hashes(const std::vector<std::string>& files,
                                                 const source::SourceIndex& index,
                                                 const std::string& steering);

// The states of all planned pages in the order of the plan, then of stored pages that the plan no longer has.
// `marks` are the stale marks by page id, `steering` is the text for every page. `follower` is about the same
// index. Time grows with all pages and their sources, and with the cited files that changed.
std::vector<PageState> page_states(const Plans& plans, const store::StoredRows& rows,
                                   const std::map<std::string, std::string>& marks,
                                   const source::SourceIndex& index, const std::string& steering,
                                   CitationFollower& follower);

}  // namespace ossilar::workers::wiki
