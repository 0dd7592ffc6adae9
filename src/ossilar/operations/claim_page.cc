// Claims a page for the caller's session, or gives it back. The rules are in
// workers/wiki/asking/page_claims.h; this only translates.
#include <algorithm>

#include "ossilar/operations/claim_texts.h"
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/page_claims.h"

namespace ossilar::operations {
namespace {

using workers::wiki::ClaimOutcome;

constexpr int kMostMinutes = 240;
constexpr int kUsualMinutes = 30;
constexpr std::int64_t kSecondsInMinute = 60;

// Why the caller has no page, and when to ask again.
std::string why_none(const ClaimOutcome& outcome) {
  if (outcome.page) return "another has claimed it: " + claim_text(*outcome.claim);
  if (outcome.unwritten == 0) return "no page is missing or stale: the wiki is complete";
  std::string why = "all pages that can be written now are claimed";
  const auto first = std::min_element(
      outcome.standing.begin(), outcome.standing.end(),
      [](const store::PageClaim& a, const store::PageClaim& b) { return a.until < b.until; });
  if (first != outcome.standing.end()) why += "; the first claim ends at " + utils::iso_time(first->until);
  return why;
}

Map described_claim(const ClaimOutcome& outcome, const std::string& holder) {
  const bool is_ours = outcome.claim && outcome.claim->holder == holder;
  Map value{{"claimed", is_ours}};
  if (outcome.page) {
    value["page_id"] = outcome.page->page_id;
    value["title"] = outcome.page->title;
    value["type"] = outcome.page->type;
    value["state"] = workers::wiki::condition_name(outcome.page->condition);
    value["reason"] = outcome.page->reason;
  }
  if (outcome.claim) value["until"] = utils::iso_time(outcome.claim->until);
  value["holder"] = holder;
  value["unwritten"] = outcome.unwritten;
  value["claims"] = outcome.standing.size();
  if (!is_ours) value["why"] = why_none(outcome);
  return value;
}

Result call_claim_page(const Asked& asked) {
  const auto page_id = optional_text(asked.arguments, "page_id");
  const std::string holder = holder_of(asked);
  const std::int64_t now = workers::wiki::seconds_now();
  if (asked.arguments.value("release", false)) {
    return {.value = {{"claimed", false},
                      {"holder", holder},
                      {"released", workers::wiki::release_pages(asked.wiki, page_id, holder, now)}}};
  }
  const std::int64_t minutes = asked.arguments.value("minutes", kUsualMinutes);
  auto claimed = workers::wiki::claim_page(asked.wiki, {.page_id = page_id,
                                                        .holder = holder,
                                                        .client = asked.client,
                                                        .now = now,
                                                        .until = now + minutes * kSecondsInMinute});
  if (auto* refusal = std::get_if<workers::wiki::Answer>(&claimed)) return {.value = std::move(*refusal)};
  return {.value = described_claim(std::get<ClaimOutcome>(claimed), holder)};
}

}  // namespace

Operation claim_page() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  return {
      .command = {},
      .tool = "claim_page",
      .title = "Claim a wiki page",
      .does = "Claim the next page to write, so that several agents share the work",
      .description =
          "Claims a page for your session, so that other agents take another one. Without `page_id` you get "
          "the next missing or stale page that nobody has claimed: pages about sources first, and once all "
          "of "
          "them are written, those that sum up. Then call page_context, and save_page or confirm_page, which "
          "gives the page back. A "
          "claim ends by itself after `minutes`; call again with `page_id` to prolong it. It is advice: a "
          "save of another is not refused. With `release` you give the page back, or all of yours.",
      .example = {},
      .arguments = {{.name = "page_id",
                     .option = {},
                     .value = {},
                     .schema = needed_text("the page to claim; without it, the next one")},
                    {.name = "minutes",
                     .option = {},
                     .value = {},
                     .schema = number(1, kMostMinutes, kUsualMinutes, "for how long")},
                    {.name = "release",
                     .option = {},
                     .value = {},
                     .schema = flag("give the page back; without `page_id`, all pages that you hold")},
                    holder_argument()},
      .output_schema = object({{"claimed", flag("true: the page is yours until `until`")},
                               {"page_id", text("the page")},
                               {"title", text("its title")},
                               {"type", text("its type")},
                               {"state", text("missing, stale or another state")},
                               {"reason", text("what changed")},
                               {"until", text("when the claim ends, ISO 8601")},
                               {"holder", text("names who claims: you")},
                               {"unwritten", count("pages that are missing or stale, claimed or not")},
                               {"claims", count("claims that stand, yours included")},
                               {"released", strings("with `release`: the pages that you held")},
                               {"why", text("if nothing was claimed: why")},
                               {"error", text("why there is no such page")},
                               {"similar", strings("if the page is not planned: similar page ids")}}),
      .reads_only = false,
      .call = call_claim_page};
}

}  // namespace ossilar::operations
