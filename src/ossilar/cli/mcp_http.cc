// Serves sessions over HTTP until it is told to end, as `serve` does. A second signal is not waited for: it
// ends the process at once.
#include <chrono>
#include <csignal>
#include <cstdlib>

#include "ossilar/cli/commands.h"
#include "ossilar/cli/ending_signals.h"
#include "ossilar/mcp/http/server.h"

namespace ossilar::cli {
namespace {

// As long as a session on standard input and output is given (mcp/server.cc).
constexpr std::chrono::milliseconds kPatience = std::chrono::seconds(10);

}  // namespace

int run_mcp_http(const Place& place, const McpArguments& arguments, const utils::LogSink& log,
                 Output& output) {
  const sigset_t signals = ending_signals();
  const std::filesystem::path root = place.root();
  const auto listening = mcp::http::parse_listening(arguments.listening);
  const std::string token = arguments.token_file.empty() ? "" : mcp::http::read_token(arguments.token_file);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  mcp::http::Server server({.root = root, .listening = listening, .token = token, .log = log});
  output.document(Map{{"url", server.url()}});
  output.line("Agents are served at " + server.url() + "  (end with Ctrl-C)");
  if (!listening.is_loopback())
    Output::diagnostic("the token travels as it is: let a proxy in front of this server do TLS");
  if (!output.flush()) return kFailed;
  int signal = 0;
  sigwait(&signals, &signal);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  // A request hangs: its thread still uses the server, so the process ends without destructors.
  if (!server.finish(kPatience)) std::_Exit(kDone);
  return kDone;
}

}  // namespace ossilar::cli
