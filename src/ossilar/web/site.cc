#include "ossilar/web/site.h"

#include <algorithm>
#include <set>
#include <utility>

#include "ossilar/web/address.h"
#include "ossilar/workers/wiki/citing/claims.h"
#include "ossilar/workers/wiki/link_text.h"

namespace ossilar::web {

using workers::wiki::Citation;
using workers::wiki::KnownClaim;
using workers::wiki::PageState;

Site::Site(std::shared_ptr<workers::wiki::Wiki> wiki,
           std::shared_ptr<const workers::wiki::PlannedWiki> planned, store::StoredRows rows,
           std::map<std::string, std::string> marks, std::shared_ptr<DiagramLayouts> diagrams)
    : wiki_(std::move(wiki)),
      planned_(std::move(planned)),
      rows_(std::move(rows)),
      marks_(std::move(marks)),
      diagrams_(diagrams ? std::move(diagrams) : std::make_shared<DiagramLayouts>()) {
  titles_ = wiki_->titles(rows_, planned_->plans);
  const source::Checkout checkout = source::read_checkout(wiki_->paths().root);
  name_ = checkout.name;
  commit_ = checkout.commit;
  origin_ = checkout.origin;
  last_write_ = wiki_->store().wiki_state(wiki_->branch());
  const auto follower = wiki_->follower(*planned_);
  pages_ = page_states(planned_->plans, rows_, marks_, *planned_->index, wiki_->config().steering, *follower);
  by_id_.reserve(pages_.size());
  for (std::size_t i = 0; i < pages_.size(); ++i) by_id_.emplace(pages_[i].page_id, i);
  // A page whose parent is gone stands at the top.
  for (std::size_t i = 0; i < pages_.size(); ++i)
    children_[by_id_.count(pages_[i].parent) > 0 ? pages_[i].parent : ""].push_back(i);
  note_citations();
  note_former_names();
}

std::shared_ptr<const Site> Site::now(const std::shared_ptr<workers::wiki::Wiki>& wiki) {
  auto planned = wiki->prepare();
  auto rows = wiki->stored_pages();
  auto marks = wiki->store().stale_marks(wiki->branch());
  return std::make_shared<const Site>(wiki, std::move(planned), std::move(rows), std::move(marks));
}

bool Site::is_of(const std::shared_ptr<const workers::wiki::PlannedWiki>& planned,
                 const store::StoredRows& rows, const std::map<std::string, std::string>& marks) const {
  if (planned != planned_ || marks != marks_) return false;
  bool is_same = true;
  for_each_difference(rows_, rows, [&](const std::string&, const Map*, const Map*) { is_same = false; });
  return is_same;
}

const PageState* Site::page(const std::string& page_id) const {
  const auto found = by_id_.find(page_id);
  return found == by_id_.end() ? nullptr : &pages_[found->second];
}

const std::vector<std::size_t>& Site::children(const std::string& page_id) const {
  static const std::vector<std::size_t> kNone;
  const auto found = children_.find(page_id);
  return found == children_.end() ? kNone : found->second;
}

// The first page wins, as with titles.
void Site::note_former_names() {
  for (const PageState& page : pages_) {
    const Map* row = rows_.find(page.page_id);
    for (const std::string& id : workers::wiki::former_ids(row))
      if (by_id_.count(id) == 0) former_ids_.emplace(id, page.page_id);
    for (const std::string& title : workers::wiki::former_titles(row)) {
      const std::string slug = title_slug(title);
      if (!slug.empty()) former_titles_.emplace(slug, page.page_id);
    }
  }
}

void Site::note_citations() {
  for (const PageState& page : pages_) {
    const Map* row = rows_.find(page.page_id);
    if (row == nullptr) continue;
    std::set<Citation> seen;
    for (const KnownClaim& claim : workers::wiki::claims_of_row(*row)) {
      if (!seen.insert(claim.citation).second) continue;
      std::vector<CitedLines>& citing = cited_[claim.citation.path];
      if (citing.empty() || citing.back().page_id != page.page_id) citing.push_back({page.page_id, {}});
      citing.back().places.emplace_back(claim.citation, claim.heading);
    }
  }
}

}  // namespace ossilar::web
