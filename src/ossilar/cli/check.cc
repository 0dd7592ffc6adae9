// Shows what workers/wiki/check found, as one document or as lines of text; both are made from the same
// report. An unclean wiki is an answer and not a failure, so it ends with the exit code of a refusal. A
// script can thus tell it from a check that could not run.
#include "ossilar/cli/commands.h"
#include "ossilar/cli/progress.h"
#include "ossilar/workers/wiki/check/wiki_check.h"

namespace ossilar::cli {
namespace {

using workers::wiki::CheckReport;
using workers::wiki::Finding;

Map document_of(const std::vector<Finding>& findings) {
  Map list = Map::array();
  for (const Finding& finding : findings) {
    list.push_back(Map{{"kind", workers::wiki::fault_name(finding.fault)},
                       {"subject", finding.subject},
                       {"message", finding.message},
                       {"advice", finding.advice},
                       {"fixable", finding.fixable}});
  }
  return list;
}

Shown what_is_wrong(const Finding& finding, Output& output) {
  return output.styled(Style::bold, finding.subject) + ": " + finding.message;
}

std::string counted(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

void print_report(const CheckReport& report, bool is_part, Output& output) {
  for (const Finding& finding : report.fixed)
    output.line(output.styled(Style::good, "fixed") + "  " + what_is_wrong(finding, output));
  std::size_t fixable = 0;
  for (const Finding& finding : report.findings) {
    output.line(output.styled(Style::warn, workers::wiki::fault_name(finding.fault)) + "  " +
                what_is_wrong(finding, output) + "; " + finding.advice);
    if (finding.fixable) ++fixable;
  }
  if (report.findings.empty()) {
    output.line(output.styled(Style::good, "ok") + "  " + counted(report.pages, "page") +
                (is_part ? ", no finding of these kinds" : ", nothing wrong"));
    return;
  }
  output.line(counted(report.findings.size(), "finding") +
              (fixable > 0 ? "; ossilar check --fix repairs " + std::to_string(fixable) : ""));
}

}  // namespace

// Does not open the wiki: check_wiki() does, since a database that cannot be opened is a finding and not the
// end of the check.
int run_check(const Place& place, const CheckArguments& arguments, Output& output) {
  CheckReport report;
  {  // so that the bar is gone before the first line of the report
    ProgressBar bar("indexing");
    report = workers::wiki::check_wiki(place.root(), {.fix = arguments.fix,
                                                      .is_strict = arguments.strict,
                                                      .only = arguments.only,
                                                      .ignored = arguments.ignored,
                                                      .writer = "ossilar check",
                                                      .indexing = bar.callback()});
  }
  Map document{
      {"clean", report.is_clean()}, {"pages", report.pages}, {"findings", document_of(report.findings)}};
  if (arguments.fix) document["fixed"] = document_of(report.fixed);
  output.document(document);
  print_report(report, !arguments.only.empty() || !arguments.ignored.empty(), output);
  return report.is_clean() ? kDone : kRefused;
}

}  // namespace ossilar::cli
