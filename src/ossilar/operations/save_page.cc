// Saves a page, or with `dry_run` answers as a save would. The rules are in workers/wiki; this only
// translates.
//
// A failure that is no answer (a full disk) is returned together with the name of the file that keeps the
// text. Thrown alone, it would tell the author that the save failed and not that the text is still there.
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/operations/session_following.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/host/saving.h"

namespace ossilar::operations {
namespace {

using workers::wiki::SaveOutcome;
using workers::wiki::SaveRequest;

SaveRequest request_of(const Map& arguments) {
  return {.page_id = utils::string_member(arguments, "page_id"),
          .content = utils::string_member(arguments, "content"),
          .section = optional_text(arguments, "section"),
          .title = optional_text(arguments, "title"),
          .if_version = optional_text(arguments, "if_version")};
}

// Asked by every caller before call(): save_page() of the wiki does not look again at size and encoding.
std::optional<Map> refuse(const Map& arguments) {
  return workers::wiki::refuse_request(request_of(arguments));
}

Result call(const Asked& asked) {
  SaveRequest request = request_of(asked.arguments);
  if (asked.arguments.value("dry_run", false))
    return {.value = workers::wiki::preview_page(asked.wiki, request)};
  std::vector<workers::wiki::Doubt> followed;
  request.content = follow_before_saving(asked, request.page_id, request.content, followed);
  SaveOutcome outcome = workers::wiki::save_page(asked.wiki, request, asked.task);
  if (outcome.answer.contains("warnings")) {
    for (const workers::wiki::Doubt& doubt : followed)
      outcome.answer["warnings"].push_back("followed: " + doubt_text(doubt) + ", and was rewritten");
  }
  const auto& paths = asked.wiki.paths();
  const std::string kept =
      outcome.kept.empty() ? "" : (paths.drafts() / outcome.kept).lexically_relative(paths.root).string();
  return {.value = std::move(outcome.answer), .kept = kept, .failure = outcome.failure};
}

}  // namespace

// The schemas allow empty texts: the save's own answer says what is wrong with one, and what to do.
Operation save_page() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
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
          "others can change the rest at the same time. As `if_version`, pass the `version` from read_page "
          "or page_context: if someone saved the page since, the save is refused and you get the "
          "difference. Read the warnings of a saved page and fix what they name. You can save a page again "
          "as often as you like.",
      .example = "ossilar save overview overview.md\nossilar save overview --section Purpose < purpose.md",
      .arguments =
          {page_argument(),
           {.name = "content",
            .option = "FILE",
            .value = {},
            .schema = text("the page's Markdown, or with `section` the text of that section; at most 1 MiB"),
            .required = true,
            .from_file = true},
           {.name = "section",
            .option = "--section",
            .value = "HEADING",
            .schema = text("a `##` heading of the stored page, with or without its marks: replace only that "
                           "section")},
           {.name = "title",
            .option = "--title",
            .value = "TITLE",
            .schema = text("rename the page; links by its former titles still work")},
           {.name = "if_version",
            .option = "--if-version",
            .value = "VERSION",
            .schema =
                text("save only if the page still has this version; \"new\": only if it is not written yet")},
           {.name = "dry_run",
            .option = "--dry-run",
            .value = {},
            .schema = flag("check the page and write nothing"),
            .in_session = false,
            .flag = true}},
      .output_schema =
          object({{"saved", flag("true: page and index are on disk")},
                  {"page_id", text("the page")},
                  {"rel_path", text("its file, relative to the wiki's directory")},
                  {"citations", count("number of valid citations")},
                  {"words", count("number of words of prose")},
                  {"warnings", strings("what to fix, although the page was saved")},
                  {"version", text("with `if_version`: the page's version now")},
                  {"error", text("why nothing was saved, and what to do")},
                  {"valid_citations", count("if refused for too few citations: how many were valid")},
                  {"sections", strings("if the section does not exist: the headings that do")},
                  {"similar", strings("if the page is not planned: similar page ids")},
                  {"diff", text("if the page changed since `if_version`: a unified diff")}}),
      .reads_only = false,
      .refuse = refuse,
      .call = call};
}

}  // namespace ossilar::operations
