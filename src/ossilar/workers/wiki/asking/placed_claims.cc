// The row is asked first: of thousands of pages only those with such a claim are read.
#include "ossilar/workers/wiki/asking/placed_claims.h"

#include <algorithm>
#include <utility>

#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/pages/page_version.h"

namespace ossilar::workers::wiki {

std::vector<PlacedClaim> placed_claims(const WikiPaths& paths, const std::string& page_id, const Map& row,
                                       const std::function<bool(const Citation&)>& wanted) {
  std::vector<KnownClaim> remembered = remembered_claims(row);
  std::erase_if(remembered, [&](const KnownClaim& claim) { return !wanted(claim.citation); });
  if (remembered.empty()) return {};
  const StandingPage page = read_standing_page(paths.pages, paths.page(page_id));
  const std::string authored = split_authored(page.text, "").text();
  const auto begin = static_cast<std::ptrdiff_t>(std::min(page.text.find(authored), page.text.size()));
  const KnownClaims known(std::move(remembered));
  std::vector<PlacedClaim> placed;
  for (const auto& [claim, what] : known_in(authored, known)) {
    const auto from = page.text.begin();
    const auto line_ends = std::count(from, from + begin + static_cast<std::ptrdiff_t>(claim.begin), '\n');
    KnownClaim here = *what;
    here.heading = claim.heading;
    placed.push_back({std::move(here), sentence_of(authored, claim), line_ends + 1});
  }
  return placed;
}

}  // namespace ossilar::workers::wiki
