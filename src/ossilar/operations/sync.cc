// Follows citations whose lines moved, on one page or on all. The shell shows what each page got; a session
// gets the same document without the diffs.
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/host/following.h"
#include "ossilar/workers/wiki/host/wiki_reader.h"

namespace ossilar::operations {
namespace {

using workers::wiki::Doubt;
using workers::wiki::PageState;
using workers::wiki::SyncedPage;

std::string label(const workers::wiki::Citation& citation) {
  return workers::wiki::citation_label(workers::wiki::citation_map(citation));
}

Map described(const std::vector<Doubt>& doubts) {
  Map list = Map::array();
  for (const Doubt& doubt : doubts) {
    Map shown{{"section", doubt.section},
              {"citation", label(doubt.citation)},
              {"state", workers::wiki::state_name(doubt.state)}};
    if (doubt.now) shown["now"] = label(*doubt.now);
    list.push_back(std::move(shown));
  }
  return list;
}

bool has_moved(const PageState& page) {
  for (const Doubt& doubt : page.doubts)
    if (doubt.state == workers::wiki::CitationState::moved) return true;
  return false;
}

Result call(const Asked& asked) {
  const std::string only = utils::string_member(asked.arguments, "page_id");
  const bool is_dry_run = asked.arguments.value("dry_run", false);
  const workers::wiki::WikiReader reader(asked.wiki);
  if (!only.empty() && !reader.has_page(only))
    return {.value = workers::wiki::not_planned(only, asked.wiki.planned()->plans)};
  Map pages = Map::array();
  for (const PageState& state : reader.page_states()) {
    if ((!only.empty() && state.page_id != only) || !has_moved(state)) continue;
    asked.task.check();
    const SyncedPage page = workers::wiki::sync_page(asked.wiki, state.page_id, is_dry_run, asked.task);
    if (page.followed.empty()) continue;
    Map shown{{"page_id", page.page_id}, {"moved", described(page.followed)}, {"left", described(page.left)}};
    if (is_dry_run) shown["diff"] = page.diff;
    if (!page.refusal.empty()) shown["refused"] = page.refusal;
    pages.push_back(std::move(shown));
  }
  return {.value = Map{{"pages", std::move(pages)}, {"dry_run", is_dry_run}}};
}

}  // namespace

Operation sync() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  const Map doubt = object({{"section", text("the `##` heading that it stands under")},
                            {"citation", text("as the page had it")},
                            {"state", text("moved, changed, gone or ambiguous")},
                            {"now", text("where the text is now")}},
                           {"section", "citation", "state"});
  const Map page = object({{"page_id", text("the page")},
                           {"moved", list(doubt, "citations whose lines were rewritten")},
                           {"left", list(doubt, "citations that need the page's author")},
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
          .call = call};
}

}  // namespace ossilar::operations
