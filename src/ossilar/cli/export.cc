// Writes the wiki as files for the web. The folder is the user's to name; nothing outside it is written.
#include "ossilar/web/export.h"

#include "ossilar/cli/commands.h"
#include "ossilar/cli/progress.h"
#include "ossilar/cli/views.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/host/open_wiki.h"

namespace ossilar::cli {
namespace {

web::Sources sources_of(const std::string& word) {
  if (word == "link") return web::Sources::linked;
  return word == "none" ? web::Sources::none : web::Sources::embedded;
}

}  // namespace

int run_export(const Place& place, const ExportArguments& arguments, Output& output) {
  const std::shared_ptr<workers::wiki::Wiki> wiki = workers::wiki::open_wiki(place.root(), "ossilar export");
  prepare_with_progress(*wiki);
  workers::wiki::adopt_arrivals(*wiki, workers::wiki::WhenBusy::skip);
  const std::filesystem::path folder =
      std::filesystem::weakly_canonical(std::filesystem::absolute(arguments.folder));
  web::ExportReport report;
  {
    ProgressBar bar("exporting");
    report = web::export_site(
        *web::Site::now(wiki),
        {.folder = folder, .base_url = arguments.base_url, .sources = sources_of(arguments.sources)},
        bar.callback());
  }
  output.document(Map{{"folder", utils::valid_utf8(folder.string())},
                      {"files", report.files},
                      {"written", report.written},
                      {"removed", report.removed}});
  output.line("exported  " + shown_path(folder / "index.html"));
  output.line("          " + std::to_string(report.files) + " files, " + std::to_string(report.written) +
              " written, " + std::to_string(report.removed) + " removed");
  return kDone;
}

}  // namespace ossilar::cli
