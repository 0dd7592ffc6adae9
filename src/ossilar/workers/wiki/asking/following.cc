// Only labels are replaced, at the places where CommonMark reads them as links, so code that shows a citation
// stays as it is. Everything else is the save's: the new lines are checked, linked and fingerprinted like
// those of any author, and the page must still be the version that was read.
#include "ossilar/workers/wiki/asking/following.h"

#include <algorithm>
#include <exception>
#include <set>
#include <utility>
#include <vector>

#include "ossilar/source/git/text_diff.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/host/history.h"
#include "ossilar/workers/wiki/host/saving.h"
#include "ossilar/workers/wiki/repo_facts.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::workers::wiki {
namespace {

struct StandingText {
  std::string page;
  std::string authored;
  std::string version;
};

std::optional<StandingText> standing_text(const Wiki& wiki, const std::string& page_id) {
  const StandingPage standing = read_standing_page(wiki.paths().pages, wiki.paths().page(page_id));
  if (!standing.bytes) return std::nullopt;
  return StandingText{standing.text, split_authored(standing.text, "").text(), standing.version()};
}

// The authored text with the new lines; `page` gets what was followed and what was left.
std::string followed_text(const std::string& authored, const KnownClaims& known, CitationFollower& follower,
                          SyncedPage& page) {
  const auto claims = known_in(authored, known);
  std::vector<std::pair<const Claim*, std::string>> labels;
  for (const auto& [claim, remembered] : claims) {
    const Looked looked = follower.look(remembered->citation, remembered->print);
    const Doubt doubt{claim.heading, claim.citation, looked.state, looked.now};
    if (looked.state == CitationState::moved) {
      labels.emplace_back(&claim, citation_label(*looked.now));
      page.followed.push_back(doubt);
    } else if (is_in_doubt(looked.state)) {
      page.left.push_back(doubt);
    }
  }
  return with_labels(authored, labels);
}

// `page` with its authored text replaced: what a reader of a diff wants to see, the rest is generated.
std::string with_authored(const std::string& page, const std::string& authored, const std::string& changed) {
  const std::size_t at = page.find(authored);
  if (at == std::string::npos) return changed;
  return page.substr(0, at) + changed + page.substr(at + authored.size());
}

std::set<std::string> labels_of(const std::vector<Doubt>& followed) {
  std::set<std::string> labels;
  for (const Doubt& doubt : followed) labels.insert(citation_label(*doubt.now));
  return labels;
}

bool is_in(const std::string& heading, const std::optional<std::string>& section) {
  return !section || same_heading(heading, *section);
}

// Throws what the save failed with.
Answer answer_of(SaveOutcome outcome) {
  if (outcome.failure) std::rethrow_exception(outcome.failure);
  return std::move(outcome.answer);
}

bool has_moved(const std::vector<KnownClaim>& claims, CitationFollower& follower) {
  return std::any_of(claims.begin(), claims.end(), [&](const KnownClaim& claim) {
    return follower.look(claim.citation, claim.print).state == CitationState::moved;
  });
}

SyncedPage sync_page(Wiki& wiki, const std::string& page_id, const KnownClaims& known,
                     CitationFollower& follower, bool is_dry_run, const std::string& client,
                     utils::Task& task) {
  SyncedPage page{.page_id = page_id, .followed = {}, .left = {}, .diff = {}, .refusal = {}};
  const auto standing = standing_text(wiki, page_id);
  if (!standing) return page;
  const std::string text = followed_text(standing->authored, known, follower, page);
  if (page.followed.empty()) return page;
  if (is_dry_run) {
    const std::string name = wiki.config().dir + "/pages/" + page_id + ".md";  // as git names it
    page.diff = source::unified_diff({"a/" + name, standing->page},
                                     {"b/" + name, with_authored(standing->page, standing->authored, text)});
    return page;
  }
  const Answer answer = answer_of(save_page(
      wiki, {.page_id = page_id, .content = text, .if_version = standing->version}, task,
      {.follows = labels_of(page.followed), .change = {.client = client, .action = action::kFollowed}}));
  page.refusal = utils::string_member(answer, "error");
  return page;
}

}  // namespace

// One follower for all pages, as many cite the same files. It stays right while pages are saved: it looks at
// sources alone.
std::vector<SyncedPage> sync_pages(Wiki& wiki, const std::optional<std::string>& only, bool is_dry_run,
                                   const std::string& client, utils::Task& task) {
  const auto planned = wiki.prepare();
  const auto follower = wiki.follower(*planned);
  std::vector<SyncedPage> pages;
  wiki.stored_pages().for_each([&](const std::string& page_id, const Map& row) {
    if (only && page_id != *only) return;
    task.check();
    std::vector<KnownClaim> claims = remembered_claims(row);
    if (!has_moved(claims, *follower)) return;
    SyncedPage page =
        sync_page(wiki, page_id, KnownClaims(std::move(claims)), *follower, is_dry_run, client, task);
    if (!page.followed.empty()) pages.push_back(std::move(page));
  });
  return pages;
}

std::string followed_content(Wiki& wiki, const std::string& page_id, const std::string& content,
                             std::vector<Doubt>& followed) {
  const store::StoredRows rows = wiki.stored_pages();
  const Map* row = rows.find(page_id);
  if (row == nullptr) return content;
  SyncedPage page{.page_id = page_id, .followed = {}, .left = {}, .diff = {}, .refusal = {}};
  const auto follower = wiki.follower(*wiki.prepare());
  std::string text = followed_text(content, KnownClaims(remembered_claims(*row)), *follower, page);
  followed = std::move(page.followed);
  return text;
}

Answer confirm_page(Wiki& wiki, const std::string& page_id, const std::optional<std::string>& section,
                    const std::optional<std::string>& if_version, const std::string& client,
                    utils::Task& task) {
  const auto planned = wiki.prepare();
  if (planned->plans.find(page_id) == nullptr) return not_planned(page_id, planned->plans);
  const store::StoredRows rows = wiki.stored_pages();
  const Map* row = rows.find(page_id);
  const auto standing = standing_text(wiki, page_id);
  if (row == nullptr || !standing) {
    return {{"error", "page '" + page_id + "' is not written yet, so there is nothing to confirm"},
            {"page_id", page_id}};
  }
  if (section && !section_text(standing->authored, *section)) {
    return {{"error", "page '" + page_id + "' has no section '" + *section + "'"},
            {"page_id", page_id},
            {"sections", section_headings(standing->authored)}};
  }
  std::vector<std::string> gone;
  const auto follower = wiki.follower(*planned);
  for (const Doubt& doubt : doubts_of(remembered_claims(*row), *follower)) {
    const source::SourceFile* file = planned->index->find(doubt.citation.path);
    const bool has_lines = file != nullptr && doubt.citation.last <= file->lines;
    if (is_in(doubt.section, section) && (doubt.state == CitationState::gone || !has_lines))
      gone.push_back("[" + citation_label(doubt.citation) + "]");
  }
  if (!gone.empty()) {
    return {
        {"error",
         "what the page cites is gone, so it cannot be confirmed; rewrite the sentences and save the page"},
        {"page_id", page_id},
        {"gone", gone}};
  }
  return answer_of(save_page(wiki,
                             {.page_id = page_id,
                              .content = standing->authored,
                              .if_version = if_version ? *if_version : standing->version},
                             task,
                             {.confirms = section.value_or(""),
                              .at = _now_iso(),
                              .change = {.client = client, .action = action::kConfirmed}}));
}

}  // namespace ossilar::workers::wiki
