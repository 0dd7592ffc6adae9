// Which citations of a page are valid was decided over the whole text (citations.h), since CommonMark needs
// the whole text to tell a link from code. A part is only searched for the labels of those. Deciding again
// per part would cost a parse each and could differ: a passage may begin inside a list or quote. The price is
// that a label in a code block counts if the page also cites the same lines in prose.
#include "ossilar/workers/wiki/citing/section_cache.h"

#include "ossilar/utils/hash.h"
#include "ossilar/workers/wiki/citing/claims.h"
#include "ossilar/workers/wiki/prose_words.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::workers::wiki {

CitationsInText::CitationsInText(const std::vector<Map>& citations) {
  for (const KnownClaim& claim : claims_of(citations)) known_.insert(claim.citation);
}

Map CitationsInText::in(const std::string& text) const {
  Map found = Map::array();
  std::set<Citation> seen;
  for (const std::string_view label : bracketed(text)) {
    const auto citation = parse_citation(label);
    if (citation && known_.count(*citation) > 0 && seen.insert(*citation).second)
      found.push_back(citation_map(*citation));
  }
  return found;
}

Map section_cache(const std::string& body, const std::vector<Map>& citations) {
  const CitationsInText known(citations);
  Map sections = Map::array();
  for (const Section& section : sections_of(body)) {
    const std::string text(section.text);
    sections.push_back(Map{{"heading", section.heading},
                           {"words", prose_words(text)},
                           {"citations", known.in(text).size()},
                           {"hash", utils::sha256_hex(text)}});
  }
  return {{"sections", sections}, {"words", prose_words(body)}};
}

}  // namespace ossilar::workers::wiki
