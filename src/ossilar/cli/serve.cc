// Serves until it is told to end. Ctrl-C and SIGTERM are blocked before the first thread starts, so that all
// of them inherit that, and are then waited for: the server ends with its destructors.
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <csignal>

#include "ossilar/cli/commands.h"
#include "ossilar/cli/ending_signals.h"
#include "ossilar/web/server.h"
#include "ossilar/workers/wiki/host/open_wiki.h"

extern char** environ;

namespace ossilar::cli {
namespace {

// With the desktop's own command, which is not waited for: it may last as long as the browser.
void open_browser(const std::string& url) {
  std::string program = "xdg-open";
  std::string address = url;
  char* const arguments[] = {program.data(), address.data(), nullptr};
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    posix_spawn_file_actions_addopen(&files, fd, "/dev/null", O_RDWR, 0);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  pid_t child = 0;
  if (posix_spawnp(&child, program.c_str(), &files, &attributes, arguments, environ) != 0)
    Output::diagnostic("no xdg-open here; open the address yourself");
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
}

}  // namespace

int run_serve(const Place& place, const ServeArguments& arguments, Output& output) {
  const sigset_t signals = ending_signals();
  const std::filesystem::path root = place.root();
  {
    // With progress on the terminal; the server then finds the index as it is.
    const auto wiki = workers::wiki::open_wiki(root, "ossilar serve");
    prepare_with_progress(*wiki);
    reembed_with_progress(*wiki);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  const web::Server server({.root = root, .port = arguments.port});
  output.document(Map{{"url", server.url()}});
  output.line("The wiki is at " + server.url() + "  (end with Ctrl-C)");
  if (!output.flush()) return kFailed;
  if (arguments.open) open_browser(server.url());
  int signal = 0;
  sigwait(&signals, &signal);
  return kDone;
}

}  // namespace ossilar::cli
