// Where the claims of stored pages stand: the sentence, and the line of the page file. affected.cc and
// cites.cc show it to people.
//
// Thread-safety: any thread may call. Nothing is written; a failure leaves nothing behind.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/citing/claims.h"
#include "ossilar/workers/wiki/host/wiki_paths.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

struct PlacedClaim {
  KnownClaim known;       // with the citation and the heading that it has on the page now
  std::string sentence;   // on one line, with its citations
  std::int64_t line = 0;  // of the page file, in which the citation stands
};

// The claims of a page with this row whose citation is `wanted`, in their order. Those that its text does not
// have any more are left out. Reads the page file if there is such a claim; throws utils::Error when it
// cannot be read, or the row's JSON text is damaged.
std::vector<PlacedClaim> placed_claims(const WikiPaths& paths, const std::string& page_id, const Map& row,
                                       const std::function<bool(const Citation&)>& wanted);

}  // namespace ossilar::workers::wiki
