// The fingerprint of a claim is renewed where its text is the same as before: nothing is lost by that, and
// the newer version of the file is the better one to follow from. Where not even the file changed, the former
// fingerprint stays, so that saving a page again gives the same bytes at any commit.
#include "ossilar/workers/wiki/host/settled_claims.h"

#include <utility>

#include "ossilar/workers/wiki/sections.h"

namespace ossilar::workers::wiki {
namespace {

bool covers(const std::optional<std::string>& scope, const Claim& claim) {
  return scope && (scope->empty() || same_heading(*scope, claim.heading));
}

// Whether the author has handed in this sentence.
bool was_handed_in(const Vouching& vouching, const Claim& claim) {
  if (vouching.follows || vouching.confirms) return false;
  return !vouching.section || same_heading(*vouching.section, claim.heading);
}

}  // namespace

Settled settled_claims(const std::vector<Claim>& claims, const KnownClaims& before, const Vouching& vouching,
                       CitationFollower& follower, Fingerprinter& fingerprinter) {
  Settled settled;
  settled.claims.reserve(claims.size());
  for (const Claim& claim : claims) {
    const bool is_handed_in = was_handed_in(vouching, claim);
    const auto remember = [&](Fingerprint print) {
      settled.claims.push_back({claim.citation, claim.heading, claim.says, std::move(print)});
    };
    const KnownClaim* known = before.find(claim);
    if (covers(vouching.confirms, claim)) {
      remember(fingerprinter.take(claim.citation));
    } else if (known == nullptr) {
      const bool is_followed =
          vouching.follows && vouching.follows->count(citation_label(citation_map(claim.citation))) > 0;
      const bool is_written = is_handed_in || is_followed || vouching.is_new;
      remember(is_written ? fingerprinter.take(claim.citation) : Fingerprint{});
    } else if (!is_handed_in) {
      remember(known->print);
    } else {
      const Looked looked = follower.look(known->citation, known->print);
      if (looked.state == CitationState::same || looked.state == CitationState::unknown) {
        const Fingerprint now = fingerprinter.take(claim.citation);
        const bool is_same_file = now.file.hash == known->print.file.hash && !known->print.near.empty();
        remember(is_same_file ? known->print : now);
      } else {
        remember(known->print);
        settled.doubts.push_back({claim.heading, claim.citation, looked.state, looked.now});
      }
    }
  }
  return settled;
}

}  // namespace ossilar::workers::wiki
