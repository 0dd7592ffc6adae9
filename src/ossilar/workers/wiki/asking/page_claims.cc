// The store gives a page to one of several that ask at once; what remains is a page that its holder saved,
// and so freed, between our look at the states and our claim. A save changes the page's row before it frees
// the page, so the row is compared once the claim is had.
#include "ossilar/workers/wiki/asking/page_claims.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <utility>

#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {
namespace {

using store::PageClaim;

bool needs_work(const PageState& page) {
  return page.condition == PageCondition::missing || page.condition == PageCondition::stale;
}

// Those that others build on before those that build on them, as a page becomes stale when one that it builds
// on is written. `built_upon` is how many of the former there are.
struct PagesToWrite {
  std::vector<PageState> pages = {};  // in the order in which they are given out
  std::size_t built_upon = 0;
};

PagesToWrite pages_to_write(const std::vector<PageState>& states, const Plans& plans) {
  PagesToWrite found;
  std::copy_if(states.begin(), states.end(), std::back_inserter(found.pages), needs_work);
  const auto end = std::stable_partition(found.pages.begin(), found.pages.end(), [&](const PageState& page) {
    return gives_digest(plans.find(page.page_id));
  });
  found.built_upon = static_cast<std::size_t>(end - found.pages.begin());
  return found;
}

bool is_claimed(const std::vector<PageClaim>& claims, const std::string& page_id) {
  return std::any_of(claims.begin(), claims.end(),
                     [&](const PageClaim& claim) { return claim.page_id == page_id; });
}

bool has_changed(const std::string& page_id, const store::StoredRows& before, const store::StoredRows& now) {
  const Map* old_row = before.find(page_id);
  const Map* row = now.find(page_id);
  if (old_row == nullptr || row == nullptr) return old_row != row;
  return *old_row != *row;
}

PageClaim claim_in_store(Wiki& wiki, const ClaimRequest& request, const std::string& page_id) {
  return wiki.store().claim_page(
      wiki.branch(),
      {.page_id = page_id, .holder = request.holder, .client = request.client, .until = request.until},
      request.now);
}

// As long as a page is not written that others build on, only such pages are given out: what sums up would be
// stale as soon as the last of them is saved, and be written twice.
void claim_next(Wiki& wiki, const ClaimRequest& request, const store::StoredRows& rows,
                const PagesToWrite& found, ClaimOutcome& outcome) {
  const auto end = found.built_upon == 0 ? found.pages.size() : found.built_upon;
  const auto claims = wiki.store().page_claims(wiki.branch(), request.now);
  for (std::size_t at = 0; at < end; ++at) {
    const PageState& page = found.pages[at];
    if (is_claimed(claims, page.page_id)) continue;
    PageClaim claim = claim_in_store(wiki, request, page.page_id);
    if (claim.holder != request.holder) continue;  // another was faster
    if (has_changed(page.page_id, rows, wiki.stored_pages())) {
      wiki.store().release_page(wiki.branch(), page.page_id, request.holder);
      continue;
    }
    outcome.page = page;
    outcome.claim = std::move(claim);
    return;
  }
}

}  // namespace

std::int64_t seconds_now() { return std::time(nullptr); }

// The rows are read before the states, so a save between the two shows as a change and never as a page to
// write.
std::variant<ClaimOutcome, Answer> claim_page(Wiki& wiki, const ClaimRequest& request) {
  const WikiReader reader(wiki);
  const store::StoredRows rows = wiki.stored_pages();
  const std::vector<PageState> states = reader.page_states();
  const PagesToWrite found = pages_to_write(states, wiki.planned()->plans);
  ClaimOutcome outcome{.unwritten = found.pages.size()};
  if (request.page_id) {
    const std::string page_id = reader.standing_id(*request.page_id).value_or(*request.page_id);
    const auto page = std::find_if(states.begin(), states.end(),
                                   [&](const PageState& state) { return state.page_id == page_id; });
    if (page == states.end()) return not_planned(*request.page_id, wiki.planned()->plans);
    outcome.page = *page;
    outcome.claim = claim_in_store(wiki, request, page_id);
  } else {
    claim_next(wiki, request, rows, found, outcome);
  }
  outcome.standing = wiki.store().page_claims(wiki.branch(), request.now);
  return outcome;
}

std::vector<std::string> release_pages(Wiki& wiki, const std::optional<std::string>& page_id,
                                       const std::string& holder, std::int64_t now) {
  std::vector<std::string> released;
  for (const PageClaim& claim : wiki.store().page_claims(wiki.branch(), now)) {
    if (claim.holder != holder || (page_id && claim.page_id != *page_id)) continue;
    wiki.store().release_page(wiki.branch(), claim.page_id, holder);
    released.push_back(claim.page_id);
  }
  return released;
}

std::optional<PageClaim> standing_claim(Wiki& wiki, const std::string& page_id, std::int64_t now) {
  for (PageClaim& claim : wiki.store().page_claims(wiki.branch(), now))
    if (claim.page_id == page_id) return std::move(claim);
  return std::nullopt;
}

}  // namespace ossilar::workers::wiki
