#include <system_error>

#include "ossilar/cli/commands.h"
#include "ossilar/cli/progress.h"
#include "ossilar/source/checkout.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/host/open_wiki.h"
#include "ossilar/workers/wiki/passages/reembedding.h"

namespace ossilar::cli {
namespace {

namespace fs = std::filesystem;

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

std::unique_ptr<workers::wiki::Wiki> open_at(const Place& place, const std::string& command) {
  return workers::wiki::open_wiki(place.root(), "ossilar " + command);
}

void prepare_with_progress(workers::wiki::Wiki& wiki) {
  {
    ProgressBar bar("indexing");
    wiki.prepare(bar.callback());
  }
  for (const std::string& path : wiki.skipped_sources()) {
    Output::diagnostic("left out of the index, its name is not UTF-8: " + path);
  }
}

void bring_up_to_date(workers::wiki::Wiki& wiki) {
  prepare_with_progress(wiki);
  const auto report = workers::wiki::adopt_arrivals(wiki, workers::wiki::WhenBusy::skip);
  if (report.adopted > 0) {
    Output::diagnostic("took over " + std::to_string(report.adopted) +
                       " page(s) that came by version control");
  }
  if (report.forgotten > 0) {
    Output::diagnostic("forgot " + std::to_string(report.forgotten) +
                       " page(s) that version control removed; their texts are kept in .ossilar/replaced");
  }
  tell_of_records(report.given_records);
}

void reembed_with_progress(workers::wiki::Wiki& wiki) {
  const auto change = workers::wiki::embedding_change(wiki.store(), wiki.embedder());
  if (!change) return;
  Output::diagnostic("the embedding model changed from " + change->from + " to " + change->to +
                     "; embedding " + std::to_string(change->passages) + " passage(s) again");
  try {
    ProgressBar bar("embedding");
    utils::Task task;
    workers::wiki::reembed(wiki.store(), wiki.embedder(), bar.callback(), task);
  } catch (const utils::Error& error) {
    Output::diagnostic(std::string("not embedded: ") + error.what());
  }
}

void tell_of_records(std::size_t given) {
  if (given == 0) return;
  Output::diagnostic("the wiki was of an older format: " + std::to_string(given) +
                     " page(s) now carry their own record; commit the wiki's folder");
}

int print_refusal(const workers::wiki::Answer& answer, Output& output) {
  output.document(answer);
  output.line(output.styled(Style::bad, "refused") + "  " + utils::string_member(answer, "error"));
  for (const auto& [key, value] : answer.items()) {
    if (!value.is_array() || value.empty()) continue;
    output.line(output.styled(Style::dim, key + ":"));
    for (const Map& item : value) output.line("  " + utils::text_form(item));
  }
  return kRefused;
}

void require_utf8_argument(const std::string& text, const char* name) {
  try {
    utils::require_utf8(text, name);
  } catch (const utils::Error& error) {
    throw utils::ConfigError(error.what());
  }
}

}  // namespace ossilar::cli
