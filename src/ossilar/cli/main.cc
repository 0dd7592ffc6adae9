#include <unistd.h>

#include <csignal>
#include <string_view>

#include "ossilar/cli/app.h"
#include "ossilar/cli/commands.h"

namespace {

// The database shares memory through a file. Where the disk has no room for a page of it, or fails to read
// one, the system says so by this signal and by no failed call.
extern "C" void end_without_disk(int /*signal*/) {
  constexpr std::string_view kMessage =
      "ossilar: the disk is full, or it failed, under a file that is in memory (.ossilar/index.db-shm);"
      " free some space and try again\n";
  const ssize_t ignored = write(STDERR_FILENO, kMessage.data(), kMessage.size());
  static_cast<void>(ignored);
  _exit(ossilar::cli::kFailed);
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGBUS, end_without_disk);
  return ossilar::cli::run(argc, argv);
}
