// What pages about parts tell the pages above them.
#pragma once

#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The digest of a unit page: `title`, and as `abstract` a hash of the heading and the opening of each
// section, which is what a synthesis page builds on. Every process holds all digests, and asks only whether
// they changed. What the page cites is no part of it.
Map _page_digest(const PagePlan& plan, const std::string& body, const std::vector<Map>& citations);

// Whether the two digests say the same of their sections.
bool same_abstract(const Map& a, const Map& b);

// The ids of the pages whose abstract differs between the two, those that only one of them has included, in
// order.
std::vector<std::string> changed_abstracts(const store::PageDigests& before, const store::PageDigests& after);

// For each synthesis page that builds on one of the `changed` pages, those it builds on: `overview` and
// `architecture`, the pages above a changed one, and topics that name it as related.
std::map<std::string, std::vector<std::string>> synthesis_dependents(const Plans& plans,
                                                                     const std::vector<std::string>& changed);

}  // namespace ossilar::workers::wiki
