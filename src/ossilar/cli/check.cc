// Shows what workers/wiki/check found, as one document or as lines of text; both are made from the same
// report. An unclean wiki is an answer and not a failure, so it ends with the exit code of a refusal. A
// script can thus tell it from a check that could not run.
#include "ossilar/cli/commands.h"
#include "ossilar/cli/progress.h"
#include "ossilar/operations/check_report.h"
#include "ossilar/workers/wiki/check/wiki_check.h"

namespace ossilar::cli {
namespace {

using workers::wiki::CheckReport;
using workers::wiki::Finding;

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
int run_check(const Place& place, const Map& arguments, Output& output) {
  const bool is_fixing = arguments.value("fix", false);
  workers::wiki::CheckOptions options = operations::check_options(arguments);
  CheckReport report;
  {  // so that the bar is gone before the first line of the report
    ProgressBar bar("indexing");
    options.fix = is_fixing;
    options.writer = "ossilar check";
    options.indexing = bar.callback();
    report = workers::wiki::check_wiki(place.root(), options);
  }
  Map document{{"clean", report.is_clean()},
               {"pages", report.pages},
               {"findings", operations::finding_list(report.findings, report.findings.size())}};
  if (is_fixing) document["fixed"] = operations::finding_list(report.fixed, report.fixed.size());
  output.document(document);
  print_report(report, !options.only.empty() || !options.ignored.empty(), output);
  return report.is_clean() ? kDone : kRefused;
}

}  // namespace ossilar::cli
