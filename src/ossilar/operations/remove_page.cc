// Removes a stored page. The rules are in workers/wiki/check/removal.cc; this only translates.
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/workers/wiki/check/removal.h"

namespace ossilar::operations {
namespace {

Result call_remove_page(const Asked& asked) {
  return {.value = workers::wiki::remove_page(asked.wiki, utils::string_member(asked.arguments, "page_id"),
                                              optional_text(asked.arguments, "if_version"), asked.client,
                                              asked.task)};
}

}  // namespace

Operation remove_page() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  return {.command = "remove",
          .tool = "remove_page",
          .title = "Remove a wiki page",
          .does = "Take a page out of the wiki, as when its module went; its text is kept",
          .description =
              "Takes a stored page out of the wiki, most often an \"orphaned\" one that no page of the plan "
              "continues. Its file is kept in .ossilar/replaced. A page of the plan is \"missing\" then. "
              "`linked_by` names the pages that link to it: read those sentences again.",
          .example = "ossilar remove net",
          .arguments = {page_argument(),
                        {.name = "if_version",
                         .option = "--if-version",
                         .value = "VERSION",
                         .schema = text("remove only if the page still has this version")}},
          .output_schema = object({{"removed", flag("true: the page is gone")},
                                   {"page_id", text("the page")},
                                   {"kept", text("where its text is kept, relative to the repository")},
                                   {"linked_by", strings("pages that link to it")},
                                   {"version", text("if refused: the page's version now")},
                                   {"error", text("why nothing was removed, and what to do")},
                                   {"diff", text("if the page changed since `if_version`: a unified diff")}}),
          .reads_only = false,
          .call = call_remove_page};
}

}  // namespace ossilar::operations
