// Claims: what a page says, and the lines that it cites for it. A citation that stands twice on a page is two
// claims, each written at its own time about the text of that time.
//
// What is remembered of a claim travels in two places, the page's row (column `citations`) and the record in
// its file (pages/page_record.h). The save makes both (host/orchestrator.cc); page_state.cc and
// asking/following.cc read the row, check/adoption.cc the record.
//
// Thread-safety: plain values and functions without state; any thread may use them. Failures: what an author
// or a hand wrote is read as something; a row of an earlier format gives claims of which less is known.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/citing/fingerprint.h"

namespace ossilar::workers::wiki {

// A citation at its place in an authored text.
struct Claim {
  Citation citation;
  std::string heading;  // of the section that it stands in, "" above the first
  // Offsets in the text: of the label between its brackets, and of the sentence that it stands in.
  std::size_t begin = 0, end = 0;
  std::size_t sentence_begin = 0, sentence_end = 0;
  // A hash of the sentence that does not depend on the lines that it cites: while it stays, the author has
  // said nothing new.
  std::string says;
  // The same by the rule of an earlier version, where it gives another: a mark that opens the next sentence
  // was the end of this one. Rows that were written then have it.
  std::string said_formerly;
};

// Whether a sentence ends behind the byte at `at`: a full stop, marks that close, and then the end of the
// text, or something that can begin a sentence.
bool ends_sentence(std::string_view text, std::size_t at);

// The claims of `authored` in order. `valid` are the citations that count (Brackets::valid).
std::vector<Claim> claims_in(std::string_view authored, const std::vector<Citation>& valid);

// The sentence of a claim of `authored` on one line, with its citations; of a long one what stands around the
// claim.
std::string sentence_of(std::string_view authored, const Claim& claim);

// `authored` with other citations in the place of those of some claims: each claim with the label that goes
// between its brackets. Claims in order. No other byte changes.
std::string with_labels(std::string_view authored,
                        const std::vector<std::pair<const Claim*, std::string>>& labels);

// What is remembered of a claim.
struct KnownClaim {
  Citation citation;
  std::string heading;
  std::string says;  // "" in rows of an earlier format
  Fingerprint print;
};

// Remembered claims by what they say and cite.
class KnownClaims {
 public:
  explicit KnownClaims(std::vector<KnownClaim> claims);
  // That of the same sentence with the same citation, or null. Valid as long as this object.
  const KnownClaim* find(const Claim& claim) const;
  const std::vector<KnownClaim>& all() const { return claims_; }

 private:
  const KnownClaim* find(const Citation& citation, const std::string& says) const;

  std::vector<KnownClaim> claims_;
  std::map<std::pair<Citation, std::string>, std::size_t> places_;
};

// The claims of `authored` that are remembered, in order, each with what is. Valid as long as `known`.
std::vector<std::pair<Claim, const KnownClaim*>> known_in(std::string_view authored,
                                                          const KnownClaims& known);

// What a row and a finalized page hold of claims: a stretch of a file for each group of citations that
// overlap, {"path", "first", "last", "claims"}, in the order of the claims. The number of stretches is the
// number of citations that count: ten citations of the same lines are no more evidence than one.
std::vector<Map> stretches_of(const std::vector<KnownClaim>& claims);
std::vector<KnownClaim> claims_of(const std::vector<Map>& stretches);
// Of a row. Throws utils::Error if its JSON text is damaged.
std::vector<KnownClaim> claims_of_row(const Map& row);

// The versions of files that the claims cite, by FileVersion::hash.
std::set<std::string> versions_of(const std::vector<KnownClaim>& claims);

// A claim as JSON, {"first", "last", "in", "says", "text", ...}, and back. The path is the stretch's.
Map claim_map(const KnownClaim& claim);
KnownClaim claim_of_map(const std::string& path, const Map& map);

// A fingerprint's members as keys of `map`, those that say nothing left out, and back. The file's version is
// not among them.
void put_fingerprint(Map& map, const Fingerprint& print);
Fingerprint fingerprint_in(const Map& map);

}  // namespace ossilar::workers::wiki
