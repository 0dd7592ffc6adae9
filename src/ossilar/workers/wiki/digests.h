// Digests: what a page about a part tells the pages that build on it. A change of a digest makes these stale.
//
// The draft of a save makes the digest, its commit compares and marks (agent_save.cc, host/orchestrator.cc);
// adoption and check do the same for pages that arrive otherwise.
//
// Threads: functions without state, to be called from any thread. Failures: nlohmann::json::type_error for a
// body that is not UTF-8; nothing is written here.
#pragma once

#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The digest of a unit page: its `title`, as `abstract` a hash of the heading and the opening of each section
// of `body`, which is what a synthesis page builds on, and as `says` the same without citations. A hash is
// enough, and small: every process holds all digests, and asks only whether one changed.
Map _page_digest(const PagePlan& plan, const std::string& body, const std::vector<Map>& citations);

// Whether the two digests say the same of their sections; titles are not compared.
bool same_abstract(const Map& a, const Map& b);

// The ids of the pages whose abstract differs between the two, in order. A page that one lacks differs.
std::vector<std::string> changed_abstracts(const store::PageDigests& before, const store::PageDigests& after);

// By page, which of the `changed` pages it builds on; pages that build on none are left out. Overview and
// architecture pages build on all others, every page on those below it, and a topic on its related pages.
std::map<std::string, std::vector<std::string>> synthesis_dependents(const Plans& plans,
                                                                     const std::vector<std::string>& changed);

}  // namespace ossilar::workers::wiki
