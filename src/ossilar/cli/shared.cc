// What several commands need: the root of the repository, and the steps that bring a wiki up to date with
// something shown to the user meanwhile. What they report goes to standard error, since standard output may
// be one JSON document.
#include <system_error>

#include "ossilar/cli/commands.h"
#include "ossilar/cli/progress.h"
#include "ossilar/source/checkout.h"
#include "ossilar/utils/error.h"
#include "ossilar/workers/wiki/passages/reembedding.h"

namespace ossilar::cli {
namespace {

namespace fs = std::filesystem;

// The folder that the search for a root begins at, without symbolic links. A failure names it as the user
// gave it.
fs::path start_of(const Place& place) {
  std::error_code error;
  const fs::path start = place.repo ? fs::path(*place.repo) : fs::current_path();
  fs::path real = fs::canonical(start, error);
  if (error) throw utils::ConfigError("--repo " + start.string() + ": " + error.message());
  if (!fs::is_directory(real)) throw utils::ConfigError("--repo " + start.string() + ": not a directory");
  return real;
}

}  // namespace

fs::path Place::root() const {
  const fs::path start = start_of(*this);
  if (auto root = source::find_root(start)) return *root;
  throw utils::ConfigError("no repository at " + start.string() +
                           " or above it; run ossilar init in the folder that the wiki is about");
}

fs::path Place::root_or_here() const {
  const fs::path start = start_of(*this);
  return source::find_root(start).value_or(start);
}

void prepare_with_progress(workers::wiki::Wiki& wiki) {
  {  // so that the bar is gone before the diagnostics
    ProgressBar bar("indexing");
    wiki.prepare(bar.callback());
  }
  for (const std::string& path : wiki.skipped_sources()) {
    Output::diagnostic("left out of the index, because its name is not UTF-8: " + path);
  }
}

void reembed_with_progress(workers::wiki::Wiki& wiki) {
  const auto change = workers::wiki::embedding_change(wiki.store(), wiki.embedder());
  if (!change) return;
  Output::diagnostic("the embedding model changed from " + change->from + " to " + change->to +
                     "; embedding " + std::to_string(change->passages) + " passage(s) again");
  try {
    ProgressBar bar("embedding");
    utils::Task task;  // the command is not cancelled; batches that are done stay when it is killed
    workers::wiki::reembed(wiki.store(), wiki.embedder(), bar.callback(), task);
  } catch (const utils::Error& error) {
    Output::diagnostic(std::string("embedding failed, so search finds fewer passages by meaning: ") +
                       error.what());
  }
}

void tell_of_records(std::size_t given) {
  if (given == 0) return;
  Output::diagnostic("the wiki had an older format: " + std::to_string(given) +
                     " page file(s) got a record of their sources; commit the wiki's folder");
}

}  // namespace ossilar::cli
