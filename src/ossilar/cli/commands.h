// The commands of the shell, each called by app.cc on the main thread. Each returns the exit code of the
// program.
//
// Commands that ask a wiki are described in operations/ and run by run_operation(), which prints their
// document as text with a function of views.cc. What is no question to a wiki (`init`, `serve`)
// is the shell's own, in a file of its name; so is `check`, which is described as an operation and may find
// no wiki to open.
//
// Failure: what is no answer is thrown, before the answer is printed. Wrong usage and configuration are
// utils::ConfigError, which app.cc gives an exit code of its own. What was done before the failure stays, and
// the command can be run again.
#pragma once

#include <cstdint>
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

  // The root of the repository that the place lies in, absolute and without symbolic links. Throws
  // utils::ConfigError when there is none, or no such folder.
  std::filesystem::path root() const;
  // The same, but a place in no repository is a root itself: `init` may begin a wiki anywhere.
  std::filesystem::path root_or_here() const;
};

// Runs the operation on the wiki and prints its answer. For an argument whose value comes from a file,
// `arguments` holds the file's name; without one, or with "-", standard input is read.
int run_operation(const operations::Operation& operation, const Place& place, Map arguments, Output& output);

struct InitArguments {
  std::vector<std::string> clients;  // agent clients to set up, each one of client_names()
  bool hook = false;                 // also git's hook (git_hook.h)
};
// Sets a wiki up, or brings one that is there up to date.
int run_init(const Place& place, const InitArguments& arguments, Output& output);
// Takes the arguments of the operation (operations/check_wiki.cc). kRefused when something is wrong with the
// wiki, or still is after `fix`.
int run_check(const Place& place, const Map& arguments, Output& output);
// Serves one session until its client is gone; starts threads of its own. Takes standard output for messages;
// log records go to `log` and to the client. Ends the process itself when a request does not end.
int run_mcp(const Place& place, const utils::LogSink& log);

// Serves sessions over HTTP until SIGINT or SIGTERM. A place that may not be listened at, and a token that is
// missing or may be read by others, is a utils::ConfigError.
struct McpArguments {
  bool http = false;
  std::string listening;   // see mcp/http/listening.h
  std::string token_file;  // "" for none
};
int run_mcp_http(const Place& place, const McpArguments& arguments, const utils::LogSink& log,
                 Output& output);

// Serves the wiki to browsers on this machine until SIGINT or SIGTERM. A port that is in use is a
// utils::ConfigError.
struct ServeArguments {
  std::uint16_t port = 8411;  // 0: any that is free
  bool open = false;          // in the user's browser
};
int run_serve(const Place& place, const ServeArguments& arguments, Output& output);

// Writes the wiki as static files into a folder, which is empty or holds a former export.
struct ExportArguments {
  std::string folder;
  std::string base_url;
  std::string sources = "embed";  // or "link", "none"
};
int run_export(const Place& place, const ExportArguments& arguments, Output& output);

// Moves the wiki from one store into another (host/copy_wiki.h). kRefused for a target that holds another
// wiki, a source without one, and a lock that is not free in time.
struct StoreCopyArguments {
  std::string from;  // "local" or "postgresql://..."
  std::string to;
};
int run_store_copy(const Place& place, const StoreCopyArguments& arguments, Output& output);

// Says of each thing that ossilar relies on whether it is as it should be on this machine, and how to mend
// it; kRefused when something is odd (doctor/examinations.h).
int run_doctor(const Place& place, Output& output);

// For a user who named no command: says what this is and the one next step. Always kUsage, so that a script
// whose command is empty fails.
int run_without_command(const Place& place, Output& output);

// Shared by the commands.

// Brings the wiki's index and plan up to date with a progress bar, and names on standard error the files that
// it left out. Throws what Wiki::prepare() throws.
void prepare_with_progress(workers::wiki::Wiki& wiki);

// Says on standard error that a wiki of an older format was migrated and `given` pages got a record; nothing
// for 0.
void tell_of_records(std::size_t given);

// Embeds the wiki again when its embedding model changed, with a progress bar, and says so. A service that
// fails is reported on standard error and nowhere else: words can still be searched, and the next call embeds
// the rest.
void reembed_with_progress(workers::wiki::Wiki& wiki);

}  // namespace ossilar::cli
