// Saves a page, or with `dry_run` answers as a save would. The rules are in workers/wiki; this only
// translates.
//
// A failure that is no answer (a full disk) is returned together with the name of the file that keeps the
// text. Thrown alone, it would tell the author that the save failed and not that the text is still there.
#include "ossilar/operations/claim_texts.h"
#include "ossilar/operations/operation.h"
#include "ossilar/operations/saving_texts.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/operations/session_following.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/host/saving.h"

namespace ossilar::operations {
namespace {

using workers::wiki::SaveOutcome;
using workers::wiki::SaveRequest;

Result call_save_page(const Asked& asked) {
  SaveRequest request = request_of(asked.arguments);
  if (asked.arguments.value("dry_run", false)) return preview(asked, request);
  std::vector<workers::wiki::Doubt> followed;
  request.content = follow_before_saving(asked, request.page_id, request.content, followed);
  SaveOutcome outcome =
      workers::wiki::save_page(asked.wiki, request, asked.task, {.change = {.client = asked.client}});
  if (outcome.answer.contains("warnings")) {
    for (const workers::wiki::Doubt& doubt : followed)
      outcome.answer["warnings"].push_back("followed: " + doubt_text(doubt) + ", and was rewritten");
  }
  const auto& paths = asked.wiki.paths();
  const std::string kept =
      outcome.kept.empty() ? "" : (paths.drafts() / outcome.kept).lexically_relative(paths.root).string();
  Result result{.value = std::move(outcome.answer), .kept = kept, .failure = outcome.failure};
  if (result.value.contains("valid_citations")) result.notes = notes_on_refusal(asked, request);
  if (result.value.contains("error")) {
    for (std::string& note : notes_on_blank(request)) result.notes.push_back(std::move(note));
  }
  if (!outcome.version.empty()) {
    result.notes.push_back("The page has version " + outcome.version +
                           " now; pass it as if_version to save onto it.");
  }
  if (utils::member(result.value, "saved") == Map(true)) {
    for (std::string& note : settle_claim(asked, request.page_id)) result.notes.push_back(std::move(note));
  }
  return result;
}

std::vector<Argument> with_more(std::vector<Argument> arguments, std::vector<Argument> more) {
  arguments.insert(arguments.end(), std::make_move_iterator(more.begin()),
                   std::make_move_iterator(more.end()));
  return arguments;
}

}  // namespace

Operation save_page() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  Map properties = answer_properties();
  properties["saved"] = flag("true: page and index are on disk");
  properties["warnings"] = strings("what to fix, although the page was saved");
  properties["version"] = text("with `if_version`: the page's version now");
  properties["diff"] = text("if the page changed since `if_version`: a unified diff");
  return {
      .command = "save",
      .tool = "save_page",
      .title = "Save a wiki page",
      .does = "Check a page and store it",
      .description =
          "Checks a page that you wrote, then stores all of it, or refuses it and says what to fix. Write "
          "Markdown: a summary paragraph first, then `##` sections, no `#` title. Cite the source of every "
          "claim about the code as [path/to/file:L10-L20], outside code and with lines that exist; link "
          "other pages as [Their title]. With `section`, `content` replaces only that `##` section, so "
          "others can change the rest at the same time; with `place` it adds one or removes it. As "
          "`if_version`, pass the `version` from read_page or page_context: if someone changed the page "
          "since, or with `section` that section or the page's headings, the save is refused and you get the "
          "difference. Read the warnings of a saved page and fix what they name. You can save a page again "
          "as often as you like.",
      .example =
          "ossilar save overview overview.md\nossilar save overview --section Purpose < purpose.md\n"
          "ossilar save overview --section Limits --place \"after: Purpose\" limits.md\n"
          "ossilar save overview --section Limits --place remove",
      .arguments = with_more(
          text_arguments(),
          {{.name = "if_version",
            .option = "--if-version",
            .value = "VERSION",
            .schema =
                text("save only if the page still has this version; \"new\": only if it is not written yet")},
           {.name = "dry_run",
            .option = "--dry-run",
            .value = {},
            .schema = flag("check the page and write nothing"),
            .in_session = false,
            .flag = true},
           holder_argument()}),
      .output_schema = object(properties),
      .reads_only = false,
      .refuse = refuse_text,
      .call = call_save_page};
}

}  // namespace ossilar::operations
