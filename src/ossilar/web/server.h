// Serves the site of a wiki over HTTP on this machine alone, live.
//
// libmicrohttpd, because a client costs it memory and no thread: of each connection the memory is limited,
// and a client that sends or reads slowly, or follows events for days, keeps nobody waiting. With a thread
// for each connection, as simpler libraries have, a few slow ones would be all it takes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace ossilar::web {

struct ServerOptions {
  std::filesystem::path root;  // of the repository, as for open_wiki()
  std::uint16_t port = 0;      // 0: any that is free
};

// Thread-safety: every member may be called from any thread. The constructor opens the wiki, makes the site
// and begins to serve; it throws what these throw, and utils::ConfigError for a port that is in use. The
// destructor ends all connections and waits for answers at work.
class Server {
 public:
  explicit Server(const ServerOptions& options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::uint16_t port() const;
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port()) + "/"; }

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ossilar::web
