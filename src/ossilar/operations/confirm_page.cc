// The author of a page says that its words still hold for the source as it is. The rules are in
// workers/wiki/asking/following.cc; this only translates.
#include "ossilar/operations/claim_texts.h"
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/workers/wiki/asking/following.h"

namespace ossilar::operations {
namespace {

Result call_confirm_page(const Asked& asked) {
  const std::string page_id = utils::string_member(asked.arguments, "page_id");
  Result result{.value = workers::wiki::confirm_page(
                    asked.wiki, page_id, optional_text(asked.arguments, "section"),
                    optional_text(asked.arguments, "if_version"), asked.client, asked.task)};
  if (utils::member(result.value, "saved") == Map(true)) result.notes = settle_claim(asked, page_id);
  return result;
}

}  // namespace

Operation confirm_page() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  return {
      .command = "confirm",
      .tool = "confirm_page",
      .title = "Confirm a wiki page",
      .does = "Say that a page's words still hold for the source as it is",
      .description =
          "Call it after you have read what a page cites and its words still hold. The text stays; the "
          "page "
          "is compared with today's source from then on. With `section` only that `##` section is confirmed. "
          "Refused if something that the page cites is gone: then rewrite the sentence and save the page.",
      .example = "ossilar confirm overview\nossilar confirm overview --section Purpose",
      .arguments = {page_argument(),
                    {.name = "section",
                     .option = "--section",
                     .value = "HEADING",
                     .schema = needed_text("confirm only this `##` section")},
                    {.name = "if_version",
                     .option = "--if-version",
                     .value = "VERSION",
                     .schema = text("confirm only if the page still has this version")},
                    holder_argument()},
      .output_schema =
          object({{"saved", flag("true: the confirmation is on disk")},
                  {"page_id", text("the page")},
                  {"rel_path", text("its file, relative to the wiki's directory")},
                  {"citations", count("number of valid citations")},
                  {"words", count("number of words of prose")},
                  {"warnings", strings("what to fix on the page")},
                  {"version", text("the page's version now")},
                  {"error", text("why nothing was confirmed, and what to do")},
                  {"gone", strings("citations whose text is gone")},
                  {"sections", strings("if the section does not exist: the headings that do")},
                  {"similar", strings("if the page is not planned: similar page ids")},
                  {"valid_citations", count("if refused for too few citations: how many were valid")},
                  {"diff", text("if the page changed since `if_version`: a unified diff")}}),
      .reads_only = false,
      .call = call_confirm_page};
}

}  // namespace ossilar::operations
