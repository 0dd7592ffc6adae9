// The program: a handler for the one failure that no call reports, and the command line. The handler is set
// first, as any command may touch the database.
#include <unistd.h>

#include <csignal>
#include <string_view>

#include "ossilar/cli/app.h"
#include "ossilar/cli/commands.h"

namespace {

// The database maps a file into memory (.ossilar/index.db-shm). Where the disk has no room for a page of it,
// or fails to read one, the system reports it by SIGBUS and not by a failed call.
//
// The memory access that failed cannot be finished, so the process ends, as by a kill: the system frees the
// write lock, and the next command finds the old page or the new one. Only functions that are allowed in a
// signal handler are called (signal-safety(7)): write() and not stdio, _exit() and not exit().
extern "C" void end_without_disk(int /*signal*/) {
  constexpr std::string_view kMessage =
      "ossilar: cannot read or write .ossilar/index.db-shm: the disk is full or has failed;"
      " free some space and try again\n";
  const ssize_t ignored = write(STDERR_FILENO, kMessage.data(), kMessage.size());
  static_cast<void>(ignored);  // there is nowhere else to say it
  _exit(ossilar::cli::kFailed);
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGBUS, end_without_disk);
  return ossilar::cli::run(argc, argv);
}
