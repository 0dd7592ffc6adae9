// Saves an earlier version of a page again. The rules are in workers/wiki/asking/page_versions.h; this only
// translates.
#include "ossilar/operations/operation.h"
#include "ossilar/operations/saving_texts.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/workers/wiki/asking/page_versions.h"

namespace ossilar::operations {
namespace {

Result call_restore_page(const Asked& asked) {
  auto outcome = workers::wiki::restore_page(asked.wiki,
                                             {.page_id = utils::string_member(asked.arguments, "page_id"),
                                              .version = utils::string_member(asked.arguments, "version"),
                                              .if_version = optional_text(asked.arguments, "if_version"),
                                              .client = asked.client},
                                             asked.task);
  if (!outcome.version.empty()) outcome.answer["version"] = outcome.version;
  return {.value = std::move(outcome.answer), .failure = outcome.failure};
}

}  // namespace

Operation restore_page() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  Map properties = answer_properties();
  properties["saved"] = flag("true: page and index are on disk");
  properties["warnings"] = strings("what to fix, although the page was saved");
  properties["version"] = text("the page's version now");
  properties["versions"] = strings("if there is no such version: those that are kept, number and name");
  properties["diff"] = text("if the page changed since `if_version`: a unified diff");
  return {
      .command = "restore",
      .tool = "restore_page",
      .title = "Restore a version of a wiki page",
      .does = "Save an earlier version of a page again, with the checks of a save",
      .description =
          "Saves an earlier version of a page again, or brings back a page that was removed. It is checked "
          "as any save is. What it cites is compared with the source that it was written about, so it is "
          "stale if that changed: read the warnings.",
      .example = "ossilar restore overview 3",
      .arguments =
          {page_argument(),
           {.name = "version",
            .option = "VERSION",
            .value = {},
            .schema = needed_text(
                "the version: its number in the page's history, or at least four characters of its name"),
            .required = true},
           {.name = "if_version",
            .option = "--if-version",
            .value = "VERSION",
            .schema = text("restore only if the page still has this version")}},
      .output_schema = object(properties),
      .reads_only = false,
      .call = call_restore_page};
}

}  // namespace ossilar::operations
