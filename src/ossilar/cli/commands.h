// The commands. Each gives the exit code of the program; a failure that is no answer is thrown.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/cli/output.h"
#include "ossilar/utils/logging.h"
#include "ossilar/workers/wiki/host/wiki.h"
#include "ossilar/workers/wiki/passages/wiki_search.h"

namespace ossilar::cli {

inline constexpr int kDone = 0;
inline constexpr int kRefused = 1;  // the answer is a refusal, or a check found something
inline constexpr int kUsage = 2;    // wrong usage or configuration
inline constexpr int kFailed = 3;   // a disk, a database, a broken repository

// Where the command runs: --repo, or the current directory.
struct Place {
  std::optional<std::string> repo;

  // The root of the repository that the place lies in. Throws utils::ConfigError when there is none.
  std::filesystem::path root() const;
  // The same, but a place in no repository is a root itself.
  std::filesystem::path root_or_here() const;
};

struct SaveArguments {
  std::string page_id;
  std::string file;  // "" or "-" is standard input
  std::optional<std::string> section;
  std::optional<std::string> title;
  bool dry_run = false;
};

struct ShowArguments {
  std::string page_id;
  std::optional<std::string> section;
  bool authored = false;
};

// Sets up the agent clients of these names too, each a name of client_names().
int run_init(const Place& place, const std::vector<std::string>& client_names, Output& output);
int run_plan(const Place& place, Output& output);
int run_context(const Place& place, const std::string& page_id, Output& output);
int run_save(const Place& place, const SaveArguments& arguments, Output& output);
int run_show(const Place& place, const ShowArguments& arguments, Output& output);
int run_search(const Place& place, const workers::wiki::SearchRequest& request, Output& output);
int run_status(const Place& place, Output& output);
int run_check(const Place& place, bool fix, Output& output);
// Takes standard output for itself; log records go to `log` and to the client.
int run_mcp(const Place& place, const utils::LogSink& log);

// Shared by the commands.

std::unique_ptr<workers::wiki::Wiki> open_at(const Place& place, const std::string& command);

// Brings the wiki's index and plan up to date behind a progress bar, and names on standard error what it left
// out.
void prepare_with_progress(workers::wiki::Wiki& wiki);

// The same, and takes over the pages that came with their manifest.
void bring_up_to_date(workers::wiki::Wiki& wiki);

// Says on standard error that a wiki of an older format was brought forward, when `given` pages were changed.
void tell_of_records(std::size_t given);

// Embeds the wiki again when its embedding model changed, behind a progress bar, and says so; a service that
// fails is named on standard error, and what it has not embedded is left for the next time.
void reembed_with_progress(workers::wiki::Wiki& wiki);

// Prints an answer with `error`; gives kRefused.
int print_refusal(const workers::wiki::Answer& answer, Output& output);

// Throws utils::ConfigError when an argument is not UTF-8.
void require_utf8_argument(const std::string& text, const char* name);

}  // namespace ossilar::cli
