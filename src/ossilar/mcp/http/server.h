// Agent sessions over HTTP, of many clients at once: the protocol's Streamable HTTP, by the same sessions as
// over standard input and output (mcp/session.h). https://modelcontextprotocol.io/specification
//
// libmicrohttpd, as in web/: a client that is slow, or listens for days, costs some memory and no thread.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "ossilar/mcp/http/listening.h"
#include "ossilar/utils/logging.h"

namespace ossilar::mcp::http {

struct ServerOptions {
  std::filesystem::path root;  // of the repository, as for open_wiki()
  Listening listening;
  std::string token;   // needed where the address is not this machine's own; "" for none
  utils::LogSink log;  // where records go besides the clients; empty for nowhere
};

// Thread-safety: every member may be called from any thread. The constructor begins to serve; it throws
// utils::ConfigError for an address that is in use, or that needs a token and has none. Replaces the log sink
// while it lives; one at a time.
class Server {
 public:
  explicit Server(ServerOptions options);
  // Ends what finish() left.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::string url() const;

  // Accepts nothing more, and waits for the requests under way, for `patience` at most; then cancels them and
  // waits two seconds more. False when some have not ended even then: their threads still use the server, so
  // the process must end without its destructor.
  bool finish(std::chrono::milliseconds patience);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ossilar::mcp::http
