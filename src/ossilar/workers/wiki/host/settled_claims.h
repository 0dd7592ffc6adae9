// What a save remembers of each claim: which text its citation is about from now on.
//
// A sentence that the author wrote cites the source as it is. A sentence that stands as it stood was written
// about an earlier source, and nobody can say that it was read again: it keeps what it cited then. So a text
// that is handed in a second time stays as true, or as stale, as it was, and a save of one section says
// nothing of the others. Only `ossilar confirm` says that words still hold.
//
// Threads: a function without state; it runs on the thread of its follower. Failures: what follower and
// fingerprinter throw.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/citing/claims.h"
#include "ossilar/workers/wiki/citing/fingerprinter.h"
#include "ossilar/workers/wiki/citing/follower.h"
#include "ossilar/workers/wiki/citing/page_state.h"

namespace ossilar::workers::wiki {

// What a save's author vouches for.
struct Vouching {
  bool is_new = false;  // the page was not stored before
  // Nobody has read the page: only the lines of moved citations were rewritten, to these labels.
  std::optional<std::set<std::string>> follows = {};
  std::optional<std::string> section = {};  // the save replaces only this section
  // Of this section, or with "" of the whole page, the author says that the words still hold.
  std::optional<std::string> confirms = {};
  bool restores = false;  // the text is an earlier version, which nobody has compared with today's sources

  // Whether it is the whole page, by a new text or by a confirmation.
  bool is_whole() const { return !section && !follows && !restores && confirms.value_or("").empty(); }
};

struct Settled {
  std::vector<KnownClaim> claims;
  std::vector<KnownClaim> lost;  // claims of before that stand as they stood, and whose lines are gone
  std::vector<Doubt> doubts;     // of sentences in what was saved that keep what they cited
};

// Of the authored text `text`, whose brackets are `brackets`.
Settled settled_claims(std::string_view text, const Brackets& brackets, const KnownClaims& before,
                       const Vouching& vouching, CitationFollower& follower, Fingerprinter& fingerprinter);

// What the author of a doubt is told in the answer of the save.
std::string doubt_warning(const Doubt& doubt);

}  // namespace ossilar::workers::wiki
