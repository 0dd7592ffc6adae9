#include "ossilar/mcp/server.h"

#include <malloc.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "ossilar/cli/commands.h"
#include "ossilar/mcp/protocol/transport.h"

namespace ossilar::cli {

int run_mcp(const Place& place, const utils::LogSink& log) {
  const std::filesystem::path root = place.root();
  if (isatty(STDIN_FILENO) == 1)
    Output::diagnostic("this is for a program that speaks the Model Context Protocol; end it with Ctrl-D");
  // Eight threads would each keep a pool of their own; their requests are short and seldom at once.
  mallopt(M_ARENA_MAX, 2);
  const utils::UniqueFd output = mcp::take_standard_output();
  std::signal(SIGPIPE, SIG_IGN);  // a client that is gone shows in what write() gives
  const bool ended = mcp::serve({.root = root, .input = STDIN_FILENO, .output = output.get(), .log = log});
  if (!ended) std::_Exit(kDone);  // something hangs, and nobody waits for it any more
  return kDone;
}

}  // namespace ossilar::cli
