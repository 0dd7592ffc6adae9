// Prepares the process for a session, which itself knows only two descriptors (mcp/server.h). Standard output
// is taken before the session starts: anything printed to it by mistake would stand between two messages, and
// the client could not read on.
#include "ossilar/mcp/server.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "ossilar/cli/commands.h"
#include "ossilar/mcp/protocol/transport.h"

namespace ossilar::cli {

int run_mcp(const Place& place, const utils::LogSink& log) {
  const std::filesystem::path root = place.root();  // may throw, so before standard output is taken
  if (isatty(STDIN_FILENO) == 1)
    Output::diagnostic("waiting for a client that speaks the Model Context Protocol; end with Ctrl-D");
  const utils::UniqueFd output = mcp::take_standard_output();
  std::signal(SIGPIPE, SIG_IGN);  // or the first write to a client that is gone would kill the process
  const bool ended = mcp::serve({.root = root, .input = STDIN_FILENO, .output = output.get(), .log = log});
  // A request hangs whose client is gone. Its thread still uses the session, so nothing can be destroyed: the
  // process ends without destructors. Not an error, as the client had its chance to wait.
  if (!ended) std::_Exit(kDone);
  return kDone;
}

}  // namespace ossilar::cli
