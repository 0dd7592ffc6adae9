// The commands of the shell. Each gives the exit code of the program; a failure that is no answer is thrown.
//
// What is asked of a wiki is described in operations/ and run by run_operation(), which shows its document as
// text by a function in views.cc; `init`, `check` and `mcp` are the shell's own.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/cli/output.h"
#include "ossilar/operations/operation.h"
#include "ossilar/utils/logging.h"
#include "ossilar/workers/wiki/host/wiki.h"

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

// Asks the wiki for the operation and prints what it gives. The file that an argument is read from stands in
// its place among `arguments`.
int run_operation(const operations::Operation& operation, const Place& place, Map arguments, Output& output);

// Sets up the agent clients of these names too, each a name of client_names().
int run_init(const Place& place, const std::vector<std::string>& client_names, Output& output);
int run_check(const Place& place, bool fix, Output& output);
// Takes standard output for itself; log records go to `log` and to the client.
int run_mcp(const Place& place, const utils::LogSink& log);

// Shared by the commands.

// Brings the wiki's index and plan up to date behind a progress bar, and names on standard error what it left
// out.
void prepare_with_progress(workers::wiki::Wiki& wiki);

// Says on standard error that a wiki of an older format was brought forward, when `given` pages were changed.
void tell_of_records(std::size_t given);

// Embeds the wiki again when its embedding model changed, behind a progress bar, and says so; a service that
// fails is named on standard error, and what it has not embedded is left for the next time.
void reembed_with_progress(workers::wiki::Wiki& wiki);

}  // namespace ossilar::cli
