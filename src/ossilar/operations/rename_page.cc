// Gives a stored page another id. The rules are in workers/wiki/check/renaming.cc; this only translates.
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/workers/wiki/check/renaming.h"

namespace ossilar::operations {
namespace {

Result call_rename_page(const Asked& asked) {
  return {.value = workers::wiki::rename_page(asked.wiki, utils::string_member(asked.arguments, "page_id"),
                                              utils::string_member(asked.arguments, "new_id"),
                                              optional_text(asked.arguments, "if_version"), asked.client,
                                              asked.task)};
}

}  // namespace

Operation rename_page() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  return {
      .command = "rename",
      .tool = "rename_page",
      .title = "Give a wiki page another id",
      .does = "Give a page another id, as when its module has another name now; what links to it follows",
      .description =
          "Gives a stored page another id, most often an \"orphaned\" page that of the \"missing\" page that "
          "its "
          "module became. Text and state stay: what it cites is as stale as it was. Links to the page "
          "follow, "
          "and its former id still leads to it. Not for a page that means something else now: write that one "
          "and remove the old one.",
      .example = "ossilar rename net network",
      .arguments = {page_argument(),
                    {.name = "new_id",
                     .option = "NEW-ID",
                     .value = {},
                     .schema = needed_text("its id from now on: one of the plan whose page is missing"),
                     .required = true},
                    {.name = "if_version",
                     .option = "--if-version",
                     .value = "VERSION",
                     .schema = text("rename only if the page still has this version")}},
      .output_schema = object({{"renamed", flag("true: the page is on disk under its new id")},
                               {"page_id", text("its id now; if refused, the page that was asked for")},
                               {"former_id", text("its id before")},
                               {"title", text("its title now")},
                               {"rel_path", text("its file, relative to the wiki's directory")},
                               {"version", text("its version now")},
                               {"relinked", strings("pages whose links were led to the new file")},
                               {"kept", text("where the old file is kept, relative to the repository")},
                               {"warnings", strings("what to look at, although the page was renamed")},
                               {"error", text("why nothing was renamed, and what to do")},
                               {"diff", text("if the page changed since `if_version`: a unified diff")}}),
      .reads_only = false,
      .call = call_rename_page};
}

}  // namespace ossilar::operations
