// An agent session on two descriptors, from its first byte to its end.
#pragma once

#include <filesystem>

#include "ossilar/utils/logging.h"

namespace ossilar::mcp {

struct ServerOptions {
  std::filesystem::path root;  // of the repository, as for open_wiki()
  int input = -1;
  int output = -1;
  utils::LogSink log;  // where records go, beside the client
};

// Serves until the input ends or nobody reads the output any more. What is under way then is brought to its
// end first, for some seconds at most. False when some of it did not end: threads still run, and the process
// can only be left at once.
bool serve(const ServerOptions& options);

}  // namespace ossilar::mcp
