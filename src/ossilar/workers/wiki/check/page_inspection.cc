// A page is taken apart once, and all that is compared is made of its parts: in a large wiki parsing is most
// of a check.
#include "ossilar/workers/wiki/check/page_inspection.h"

#include <algorithm>

#include "ossilar/search/chunking.h"
#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/digests.h"
#include "ossilar/workers/wiki/finalize.h"

namespace ossilar::workers::wiki {
namespace {

// Invalid citations of one page that are named; the rest is counted. Enough to begin with, and one page
// cannot bury the findings on others.
constexpr std::size_t kMostCitations = 10;

// By these two keys only: digests of former versions have more, and are still right.
bool same_digest(const Map& a, const Map& b) {
  return utils::member(a, "title") == utils::member(b, "title") && same_abstract(a, b);
}

// Whether the stored passages are those of the text. The texts are compared and not their hashes: a damaged
// passage still has the hash of what it should be.
bool are_passages_of(const std::string& authored, const std::vector<Map>& chunks) {
  const std::vector<search::Passage> passages = search::passages(authored);
  return std::equal(passages.begin(), passages.end(), chunks.begin(), chunks.end(),
                    [](const search::Passage& passage, const Map& chunk) {
                      return passage.text == utils::string_member(chunk, store::chunk_key::kText);
                    });
}

bool is_digest_of(const Map* digest, PagePlan plan, const Map& row, const std::string& body) {
  plan.title = utils::string_member(row, "title");
  return digest != nullptr && same_digest(*digest, _page_digest(plan, body, {}));
}

// Not fixable: only an author can say what a citation should point to now.
void add_citations(const std::string& authored, const std::string& page_id, const JudgedBy& by,
                   const std::string& subject, std::vector<Finding>& findings) {
  const Brackets brackets = brackets_of(authored, by.planned, by.titles, by.planned.plans.find(page_id));
  const std::size_t named = std::min(brackets.invalid.size(), kMostCitations);
  const std::string advice = "correct the citation and save the page";
  for (std::size_t i = 0; i < named; ++i) {
    findings.push_back({Fault::citations, subject, page_id,
                        invalid_citation_warning(brackets.invalid[i], *by.planned.index), advice, false});
  }
  if (const std::size_t more = brackets.invalid.size() - named; more > 0) {
    findings.push_back({Fault::citations, subject, page_id,
                        std::to_string(more) + " more invalid citation(s)", advice, false});
  }
}

}  // namespace

void add_page_findings(const PageFile& page, const Map& row, const Map* digest,
                       const std::vector<Map>& chunks, const JudgedBy& by, const std::string& subject,
                       std::vector<Finding>& findings) {
  const Authored authored = split_authored(page.text, "");
  const std::string text = authored.text();
  if (!are_passages_of(text, chunks)) {
    findings.push_back({Fault::chunks, subject, page.page_id, "has no up-to-date entry in the search index",
                        kRebuildsIt, true});
  }
  const PagePlan* plan = by.planned.plans.find(page.page_id);
  if (gives_digest(plan) && !is_digest_of(digest, *plan, row, authored.body)) {
    findings.push_back({Fault::digest, subject, page.page_id, "has no up-to-date digest", kRebuildsIt, true});
  }
  add_citations(text, page.page_id, by, subject, findings);
}

void add_citation_findings(const PageFile& page, const JudgedBy& by, const std::string& subject,
                           std::vector<Finding>& findings) {
  add_citations(split_authored(page.text, "").text(), page.page_id, by, subject, findings);
}

}  // namespace ossilar::workers::wiki
