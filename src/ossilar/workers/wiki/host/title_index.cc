// Several pages may claim one title. A map from title to one page would have to search all pages whenever
// that page gives the title up, so each title has the ordered set of its claims: the first one wins, and when
// it goes the next takes its place. Claim's order is rank and then page id, which is the rule of precedence.
//
// Invariant: claims_ is what rows_ and plans_ claim. A page with a row claims by its row alone.
#include "ossilar/workers/wiki/host/title_index.h"

#include "ossilar/utils/fold.h"
#include "ossilar/workers/wiki/link_text.h"

namespace ossilar::workers::wiki {

void TitleIndex::update(const store::StoredRows& rows, const Plans& plans) {
  if (!plans.same_records(plans_)) {
    claims_ = {};
    rows_ = {};
    plans_ = plans;
    // Every page as one without a row; the pass below starts from no rows and takes these claims back where
    // there is one.
    for (std::size_t i = 0; i < plans.size(); ++i) change_claims(plans[i].page_id, nullptr, true);
  }
  for_each_difference(rows_, rows, [&](const std::string& page_id, const Map* before, const Map* after) {
    change_claims(page_id, before, false);
    change_claims(page_id, after, true);
  });
  rows_ = rows;
}

// Adds or takes back what `page_id` claims by its row, or without one by its plan. A row that comes or goes
// therefore takes back or restores the plan's claim.
void TitleIndex::change_claims(const std::string& page_id, const Map* row, bool add) {
  if (row == nullptr) {
    if (const PagePlan* plan = plans_.find(page_id)) change_claim(plan->title, {Rank::planned, page_id}, add);
    return;
  }
  change_claim(utils::string_member(*row, "title"), {Rank::stored, page_id}, add);
  for (const std::string& title : former_titles(row)) change_claim(title, {Rank::former, page_id}, add);
}

// The set is copied: those in claims_ are shared with copies of this index. An empty one is removed, so the
// index does not grow with every title that was ever used.
void TitleIndex::change_claim(const std::string& title, const Claim& claim, bool add) {
  const std::string key = utils::fold_label(title);
  const std::set<Claim>* known = claims_.find(key);
  std::set<Claim> claims = known != nullptr ? *known : std::set<Claim>();
  if (add) {
    claims.insert(claim);
  } else {
    claims.erase(claim);
  }
  if (claims.empty()) {
    claims_.erase(key);
  } else {
    claims_.set(key, std::move(claims));
  }
}

std::optional<std::string> TitleIndex::find(std::string_view label) const {
  const std::set<Claim>* claims = claims_.find(utils::fold_label(label));
  return claims == nullptr ? std::nullopt : std::optional(claims->begin()->second);
}

}  // namespace ossilar::workers::wiki
