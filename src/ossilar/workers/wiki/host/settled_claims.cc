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

// Settles the claims of one text.
class Settlement {
 public:
  Settlement(const KnownClaims& before, const Vouching& vouching, CitationFollower& follower,
             Fingerprinter& fingerprinter)
      : before_(before), vouching_(vouching), follower_(follower), fingerprinter_(fingerprinter) {}

  void settle(const Claim& claim) { settled_.claims.push_back(remembered(claim, print_of(claim))); }

  // A claim whose lines do not exist. One that is new was never about a text.
  void settle_dead(const Claim& claim) {
    const KnownClaim* known = before_.find(claim);
    if (known == nullptr) return;
    settled_.lost.push_back(remembered(claim, known->print));
    doubt(claim, follower_.look(known->citation, known->print));
  }

  Settled take() { return std::move(settled_); }

 private:
  static KnownClaim remembered(const Claim& claim, Fingerprint print) {
    return {claim.citation, claim.heading, claim.says, std::move(print)};
  }

  void doubt(const Claim& claim, const Looked& looked) {
    settled_.doubts.push_back({claim.heading, claim.citation, looked.state, looked.now});
  }

  Fingerprint print_of(const Claim& claim) {
    const KnownClaim* known = before_.find(claim);
    if (covers(vouching_.confirms, claim))
      return known != nullptr ? renewed(claim, known->print) : fingerprinter_.take(claim.citation);
    const bool is_handed_in = was_handed_in(vouching_, claim);
    if (known == nullptr) {
      const bool is_followed =
          vouching_.follows && vouching_.follows->count(citation_label(claim.citation)) > 0;
      const bool is_written = is_handed_in || is_followed || vouching_.is_new;
      return is_written ? fingerprinter_.take(claim.citation) : Fingerprint{};
    }
    if (!is_handed_in) return known->print;
    const Looked looked = follower_.look(known->citation, known->print);
    if (looked.state == CitationState::same || looked.state == CitationState::unknown)
      return renewed(claim, known->print);
    doubt(claim, looked);
    return known->print;
  }

  Fingerprint renewed(const Claim& claim, const Fingerprint& before) {
    Fingerprint now = fingerprinter_.take(claim.citation);
    const bool is_same_file = now.file.hash == before.file.hash && !before.near.empty();
    return is_same_file || !now.is_known() ? before : now;
  }

  const KnownClaims& before_;
  const Vouching& vouching_;
  CitationFollower& follower_;
  Fingerprinter& fingerprinter_;
  Settled settled_;
};

}  // namespace

Settled settled_claims(std::string_view text, const Brackets& brackets, const KnownClaims& before,
                       const Vouching& vouching, CitationFollower& follower, Fingerprinter& fingerprinter) {
  Settlement settlement(before, vouching, follower, fingerprinter);
  for (const Claim& claim : claims_in(text, brackets.valid)) settlement.settle(claim);
  std::vector<Citation> dead;
  for (const std::string& label : brackets.invalid)
    if (const auto citation = parse_citation(label)) dead.push_back(*citation);
  for (const Claim& claim : claims_in(text, dead)) settlement.settle_dead(claim);
  return settlement.take();
}

std::string doubt_warning(const Doubt& doubt) {
  const std::string where = doubt.section.empty() ? "" : " in '" + doubt.section + "'";
  const std::string advice = doubt.state == CitationState::moved
                                 ? "; cite it there, or let ossilar sync do it"
                                 : " since this sentence was written; read it again, then rewrite the "
                                   "sentence, or confirm the page if "
                                   "its words still hold";
  return "stale: " + doubt_text(doubt) + where + advice;
}

}  // namespace ossilar::workers::wiki
