// Checks a wiki and sets nothing right: that needs no author, so it is for the shell (cli/check.cc), which
// has the rest of this description. An agent mends what is left, pages.
#include <algorithm>

#include "ossilar/operations/check_report.h"
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/utils/text.h"

namespace ossilar::operations {
namespace {

using workers::wiki::CheckOptions;
using workers::wiki::CheckReport;
using workers::wiki::Finding;

constexpr std::size_t kMostFindings = 100;  // in a session: some 10,000 tokens

std::vector<std::string> kinds(const Map& arguments, const char* name) {
  const Map& given = utils::member(arguments, name);
  return given.is_array() ? given.get<std::vector<std::string>>() : std::vector<std::string>();
}

Map names_of_faults() {
  Map names = Map::array();
  for (const workers::wiki::FaultKind& kind : workers::wiki::kFaultKinds) names.push_back(kind.name);
  return names;
}

// "unverified, moved", for the help.
std::string clean_kinds() {
  std::vector<std::string> names;
  for (const workers::wiki::FaultKind& kind : workers::wiki::kFaultKinds)
    if (kind.leaves_clean) names.emplace_back(kind.name);
  return utils::join(names, ", ");
}

Result call_check_wiki(const Asked& asked) {
  CheckOptions options = check_options(asked.arguments);
  asked.task.begin_step("checking the wiki");
  const CheckReport report = workers::wiki::check_wiki(asked.wiki, options);
  return {.value = Map{{"clean", report.is_clean()},
                       {"pages", report.pages},
                       {"findings", finding_list(report.findings, kMostFindings)},
                       {"total", report.findings.size()}}};
}

}  // namespace

CheckOptions check_options(const Map& arguments) {
  return {.is_strict = arguments.value("strict", false),
          .only = kinds(arguments, "only"),
          .ignored = kinds(arguments, "ignore"),
          .writer = {}};
}

Map finding_list(const std::vector<Finding>& findings, std::size_t most) {
  Map list = Map::array();
  for (std::size_t i = 0; i < std::min(findings.size(), most); ++i) {
    const Finding& finding = findings[i];
    list.push_back(Map{{"kind", workers::wiki::fault_name(finding.fault)},
                       {"subject", finding.subject},
                       {"message", finding.message},
                       {"advice", finding.advice},
                       {"fixable", finding.fixable}});
  }
  return list;
}

Operation check_wiki() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  const Map kind = choice(names_of_faults(), "a kind of finding");
  const Map finding = object({{"kind", kind},
                              {"subject", text("the file, relative to the repository's root")},
                              {"message", text("what is wrong")},
                              {"advice", text("what to do")},
                              {"fixable", flag("`ossilar check --fix` sets it right, without an author")}},
                             {"kind", "subject", "message", "advice", "fixable"});
  return {
      .command = "check",
      .tool = "check_wiki",
      .title = "Check the whole wiki",
      .does = "Find stale pages, invalid citations, and what crashes, manual edits and git left behind",
      .description =
          "Says everything that is wrong with the wiki, as `ossilar check` does: stale pages, citations of "
          "lines that no longer exist, page files that a hand or version control changed, what a crash left "
          "behind. Changes nothing. Call it when your pages are saved, and mend what names your pages.",
      .example = "ossilar check\nossilar check --fix",
      .arguments = {{.name = "fix",
                     .option = "--fix",
                     .value = {},
                     .schema = flag("repair what needs no author"),
                     .in_session = false,
                     .flag = true},
                    {.name = "strict",
                     .option = "--strict",
                     .value = {},
                     .schema = flag("exit with 1 for what leaves a wiki clean too: " + clean_kinds()),
                     .in_session = false,
                     .flag = true},
                    {.name = "only",
                     .option = "--only",
                     .value = "KIND",
                     .schema = list(kind, "report these kinds of findings alone")},
                    {.name = "ignore",
                     .option = "--ignore",
                     .value = "KIND",
                     .schema = list(kind, "leave these kinds of findings out")}},
      .output_schema =
          object({{"clean", flag("nothing is wrong; kinds that only tell of pages do not count")},
                  {"pages", count("number of stored pages")},
                  {"findings", list(finding, "what is wrong, the first hundred")},
                  {"total", count("number of findings, also of those left out")}},
                 {"clean", "pages", "findings", "total"}),
      .more =
          "--fix changes no text of an author. It adopts page files as they are, rebuilds what is derived "
          "from\nthem, forgets pages whose file is gone (their text goes to .ossilar/replaced), finishes "
          "renamings that\nwere cut short, and removes the files of interrupted writes. Exit code 1 when "
          "something is found, or left after --fix.\n\nKinds of findings: " +
          utils::join(names_of_faults().get<std::vector<std::string>>(), ", "),
      .call = call_check_wiki};
}

}  // namespace ossilar::operations
