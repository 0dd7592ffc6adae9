// How the wiki stands: counts of all pages, and the names of the first that need work. Names of all would
// make the answer of a large wiki long, and list_pages gives them in portions.
#include <algorithm>

#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/page_claims.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"

namespace ossilar::operations {
namespace {

using workers::wiki::Look;
using workers::wiki::PageCondition;
using workers::wiki::PageState;
using workers::wiki::WikiStatus;

// Of each state, so at most forty lines. The texts below say "twenty" too.
constexpr std::size_t kMostNamed = 20;

Map last_write_of(const WikiStatus& status) {
  if (!status.last_write) return Map::object();  // not null: the output schema promises an object
  return {{"at", status.last_write->last_built_at},
          {"by", status.last_write->model},
          {"commit", status.last_write->last_commit}};
}

// The first pages in this state, each with the reason.
Map named(const WikiStatus& status, PageCondition condition) {
  Map pages = Map::array();
  for (const PageState& page : status.pages) {
    if (page.condition == condition && pages.size() < kMostNamed)
      pages.push_back(Map{{"page_id", page.page_id}, {"reason", page.reason}});
  }
  return pages;
}

Map standing_claims(workers::wiki::Wiki& wiki) {
  Map claims = Map::array();
  for (const auto& claim : wiki.store().page_claims(wiki.branch(), workers::wiki::seconds_now())) {
    claims.push_back(Map{{"page_id", claim.page_id},
                         {"client", claim.client},
                         {"holder", claim.holder},
                         {"until", utils::iso_time(claim.until)}});
  }
  return claims;
}

// How many pages are in each state.
Map counts_of(const WikiStatus& status) {
  Map counts = Map::object();
  for (const PageCondition condition : workers::wiki::kConditions) {
    counts[workers::wiki::condition_name(condition)] =
        std::count_if(status.pages.begin(), status.pages.end(),
                      [&](const PageState& page) { return page.condition == condition; });
  }
  return counts;
}

Result call_wiki_status(const Asked& asked) {
  // A session's sources may have changed since the last call; the shell has scanned them a moment ago.
  const Look look = asked.caller == Caller::shell ? Look::spared : Look::now;
  const WikiStatus status = workers::wiki::WikiReader(asked.wiki).status(look);
  return {.value = Map{{"branch", status.branch},
                       {"commit", status.commit},
                       {"indexed_files", status.indexed_files},
                       {"pages", counts_of(status)},
                       {"stale", named(status, PageCondition::stale)},
                       {"unverified", named(status, PageCondition::unverified)},
                       {"last_write", last_write_of(status)},
                       {"claims", standing_claims(asked.wiki)}}};
}

}  // namespace

Operation wiki_status() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  Map counts = Map::object();
  Map names = Map::array();
  for (const PageCondition condition : workers::wiki::kConditions) {
    const char* name = workers::wiki::condition_name(condition);
    counts[name] = count(workers::wiki::condition_meaning(condition));
    names.push_back(name);
  }
  const Map page =
      object({{"page_id", text("the page")}, {"reason", text("what changed")}}, {"page_id", "reason"});
  const Map write = object(
      {{"at", text("time, ISO 8601")}, {"by", text("who saved")}, {"commit", text("commit of the source")}});
  const Map claim = object({{"page_id", text("the page")},
                            {"client", text("the program that claimed it")},
                            {"holder", text("names its session")},
                            {"until", text("when the claim ends, ISO 8601")}},
                           {"page_id", "client", "holder", "until"});
  return {
      .command = "status",
      .tool = "wiki_status",
      .title = "Wiki status",
      .does = "Show branch, pages by state, and the last write",
      .description =
          "Summarizes the wiki: branch and commit, how many pages are ok, stale, unverified and "
          "missing, the first twenty stale and unverified ones with the reason, the last write, and who has "
          "claimed which page until when. list_pages lists all pages.",
      .example = "ossilar status",
      .arguments = {},
      .output_schema = object(
          {{"branch", text("of the working tree")},
           {"commit", text("\"\" outside git and before the first commit")},
           {"indexed_files", count("source files in the index")},
           {"pages", object(counts, names)},
           {"stale", list(page, "at most twenty")},
           {"unverified", list(page, "at most twenty")},
           {"last_write", write},
           {"claims", list(claim, "who is at work on which page, by page_id")}},
          {"branch", "commit", "indexed_files", "pages", "stale", "unverified", "last_write", "claims"}),
      .call = call_wiki_status};
}

}  // namespace ossilar::operations
