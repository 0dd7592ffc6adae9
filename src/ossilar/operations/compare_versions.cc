// Compares two versions of a page. The rules are in workers/wiki/asking/page_versions.h; this only
// translates.
#include <utility>

#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/page_versions.h"

namespace ossilar::operations {
namespace {

using workers::wiki::Answer;
using workers::wiki::VersionComparison;

// Bytes of a diff in a session, as much as read_page gives of a page at once.
constexpr std::size_t kMostShown = std::size_t{40} * 1024;

Map described(const store::PageVersion& version) {
  Map shown{{"version", version.version}};
  if (version.number == 0) return shown;
  shown["number"] = version.number;
  shown["at"] = version.at;
  shown["client"] = version.client;
  shown["action"] = version.action;
  return shown;
}

Result call_compare_versions(const Asked& asked) {
  auto found = workers::wiki::compare_versions(asked.wiki, utils::string_member(asked.arguments, "page_id"),
                                               optional_text(asked.arguments, "from"),
                                               optional_text(asked.arguments, "to"));
  if (auto* refusal = std::get_if<Answer>(&found)) return {.value = std::move(*refusal)};
  const auto& compared = std::get<VersionComparison>(found);
  const bool is_cut = asked.caller == Caller::session && compared.diff.size() > kMostShown;
  Map value{{"page_id", compared.page_id},
            {"from", described(compared.before)},
            {"to", described(compared.after)},
            {"diff", is_cut ? utils::utf8_prefix(compared.diff, kMostShown) : compared.diff}};
  if (is_cut) value["diff_is_cut"] = true;
  return {.value = std::move(value)};
}

}  // namespace

Operation compare_versions() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  const Map version = object({{"version", text("its name, as read_page gives it")},
                              {"number", count("its number in the page's history; none for a page file that "
                                               "was edited by hand")},
                              {"at", text("when it was made, ISO 8601")},
                              {"client", text("the program that asked for it; empty if nobody knows")},
                              {"action", text("what was done")}},
                             {"version"});
  return {
      .command = "diff",
      .tool = "compare_versions",
      .title = "Compare versions of a wiki page",
      .does = "Show what changed between two versions of a page",
      .description =
          "Shows what changed in a page's title and authored text, as a unified diff: from `from` to "
          "`to`. Without `to`, to the page as it is now; without `from`, from the last version that reads "
          "differently. Name a version by its number in page_history, or by its name.",
      .example = "ossilar diff overview\nossilar diff overview 3\nossilar diff overview 3 5",
      .arguments = {page_argument(),
                    {.name = "from",
                     .option = "A",
                     .value = {},
                     .schema = needed_text("a version: its number, or at least four characters of its name")},
                    {.name = "to",
                     .option = "B",
                     .value = {},
                     .schema =
                         needed_text("a version: its number, or at least four characters of its name")}},
      .output_schema = object({{"page_id", text("the page; its id now, if you asked for a former one")},
                               {"from", version},
                               {"to", version},
                               {"diff", text("a unified diff; empty if both read the same")},
                               {"diff_is_cut", flag("the diff is longer than what is shown")},
                               {"error", text("why nothing was compared, and what to do")},
                               {"versions", strings("the kept versions: number and name")}}),
      .call = call_compare_versions};
}

}  // namespace ossilar::operations
