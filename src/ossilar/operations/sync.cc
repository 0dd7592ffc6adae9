// Follows citations whose lines moved, on one page or on all. The rules are in
// workers/wiki/asking/following.cc; this only translates.
#include "ossilar/operations/doubts.h"
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/asking/following.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"

namespace ossilar::operations {
namespace {

using workers::wiki::SyncedPage;

Map described_page(const SyncedPage& page, bool is_dry_run) {
  Map shown{{"page_id", page.page_id},
            {"moved", doubt_list(page.followed, page.followed.size())},
            {"left", doubt_list(page.left, page.left.size())}};
  if (is_dry_run) shown["diff"] = page.diff;
  if (!page.refusal.empty()) shown["refused"] = page.refusal;
  return shown;
}

Result call_sync(const Asked& asked) {
  const auto only = optional_text(asked.arguments, "page_id");
  const bool is_dry_run = asked.arguments.value("dry_run", false);
  if (only && !workers::wiki::WikiReader(asked.wiki).has_page(*only))
    return {.value = workers::wiki::not_planned(*only, asked.wiki.planned()->plans)};
  Map pages = Map::array();
  for (const SyncedPage& page :
       workers::wiki::sync_pages(asked.wiki, only, is_dry_run, asked.client, asked.task))
    pages.push_back(described_page(page, is_dry_run));
  return {.value = Map{{"pages", std::move(pages)}, {"dry_run", is_dry_run}}};
}

}  // namespace

Operation sync() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  const Map page = object({{"page_id", text("the page")},
                           {"moved", list(doubt_schema(), "citations whose lines were rewritten")},
                           {"left", list(doubt_schema(), "citations that need the page's author")},
                           {"diff", text("of a dry run: what would change, as a unified diff")},
                           {"refused", text("why nothing was written")}},
                          {"page_id", "moved", "left"});
  Argument only = page_argument();
  only.required = false;
  return {.command = "sync",
          .tool = "sync_pages",
          .title = "Follow moved citations",
          .does = "Follow citations whose lines moved; rewrite their numbers and nothing else",
          .description =
              "Rewrites the line numbers of citations whose text moved unchanged, on one page or on all. It "
              "changes "
              "nothing else and does not count as a look at the page: what changed stays stale.",
          .example = "ossilar sync --dry-run\nossilar sync overview",
          .arguments = {std::move(only),
                        {.name = "dry_run",
                         .option = "--dry-run",
                         .value = {},
                         .schema = flag("show what would change as a unified diff, and write nothing"),
                         .flag = true}},
          .output_schema = object(
              {{"pages", list(page, "those with moved citations")}, {"dry_run", flag("nothing was written")}},
              {"pages", "dry_run"}),
          .reads_only = false,
          .call = call_sync};
}

}  // namespace ossilar::operations
