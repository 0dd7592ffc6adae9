// Answers as a save would and writes nothing. In the shell it is `ossilar save --dry-run`.
#include "ossilar/operations/operation.h"
#include "ossilar/operations/saving_texts.h"
#include "ossilar/operations/schemas.h"

namespace ossilar::operations {
namespace {

Result call_check_page(const Asked& asked) { return preview(asked, request_of(asked.arguments)); }

}  // namespace

Operation check_page() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  Map properties = answer_properties();
  properties["saved"] = flag("false: nothing was written");
  properties["dry_run"] = flag("true");
  properties["warnings"] = strings("what to fix");
  const Map cited = object({{"citation", text("as the text has it")},
                            {"line", text("the first of its lines that says something")}},
                           {"citation", "line"});
  properties["cited"] = list(cited, "each valid citation with what it cites");
  return {
      .command = {},
      .tool = "check_page",
      .title = "Check a page before saving it",
      .does = {},
      .description =
          "Holds a text against the source as save_page would, and writes nothing: the answer that a save "
          "would give, and of each citation the first line that it cites, so that you see whether you "
          "counted right. A refused text gets each invalid citation named with what may be meant.",
      .example = {},
      .arguments = text_arguments(),
      .output_schema = object(properties),
      .refuse = refuse_text,
      .call = call_check_page};
}

}  // namespace ossilar::operations
