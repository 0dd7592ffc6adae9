// An agent session on two descriptors, from its first byte to its end. cli/mcp.cc calls it on the main
// thread; the threads of the session are made and, if all goes well, ended inside.
//
// Failure: what goes wrong in a request is its answer. When the client is gone, the session ends; saves that
// were committed stay.
#pragma once

#include <filesystem>

#include "ossilar/utils/logging.h"

namespace ossilar::mcp {

struct ServerOptions {
  std::filesystem::path root;  // of the repository, as for open_wiki()
  int input = -1;
  int output = -1;
  utils::LogSink log;  // where records go besides the client; empty for nowhere
};

// Serves until the input ends or nobody reads the output any more. Requests under way are then given time to
// end: ten seconds, and two more once they are cancelled. False when one did not end. Its thread still runs
// and uses what serve() made, so the caller must end the process without running destructors. Replaces the
// log sink while it serves; to be called once at a time.
bool serve(const ServerOptions& options);

}  // namespace ossilar::mcp
