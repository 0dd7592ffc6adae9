// Claims of pages, by which several agents share the work on one wiki: who is at work on which page, until
// when. A claim is advice: a save asks for none, and the commit alone decides what is stored.
//
// Threads: any. Errors: what the store and the scan of the sources throw. A failure leaves a claim at most,
// which ends by itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

// Seconds since 1970 by the clock of this machine, the unit of all times here.
std::int64_t seconds_now();

struct ClaimRequest {
  std::optional<std::string> page_id = {};  // none: the next page that needs work and that nobody has claimed
  std::string holder;                       // names the session that claims
  std::string client;                       // its program, for people
  std::int64_t now;
  std::int64_t until;
};

struct ClaimOutcome {
  std::optional<PageState> page = {};           // none: nobody else is needed now
  std::optional<store::PageClaim> claim = {};   // that of the page; another's if it has another holder
  std::vector<store::PageClaim> standing = {};  // all claims of the branch, this one included
  std::size_t unwritten = 0;                    // pages that are missing or stale, claimed or not
};

// Claims a page. The next one is a missing or stale page, in the order of the plan. Those that sum up others
// are given out once all that they build on are written, so for a while there may be none. Each of several
// sessions that ask at once gets a page of its own, and none that was saved since it was looked at. A page
// that is asked for by its id may be in any state. An answer with `error` for an id that nobody knows.
std::variant<ClaimOutcome, Answer> claim_page(Wiki& wiki, const ClaimRequest& request);

// Frees the page, or all pages without one, that `holder` holds, and gives their ids.
std::vector<std::string> release_pages(Wiki& wiki, const std::optional<std::string>& page_id,
                                       const std::string& holder, std::int64_t now);

// The claim that somebody has on the page, none if nobody has one.
std::optional<store::PageClaim> standing_claim(Wiki& wiki, const std::string& page_id, std::int64_t now);

}  // namespace ossilar::workers::wiki
