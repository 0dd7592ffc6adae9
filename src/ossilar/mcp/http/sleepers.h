// Connections that have nothing to do until something happens. The library is told to leave them alone, and
// so does not see when a client goes away; look() does.
#pragma once

#include <microhttpd.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "ossilar/mcp/session.h"

namespace ossilar::mcp::http {

// Thread-safety: every member may be called from any thread; sleep() from the library's, which has called us
// for this connection.
class Sleepers {
 public:
  // Suspends the connection until it is woken. `is_gone` is set before it wakes if the client is gone, or the
  // server ends; it must live as long as the connection. What `alone` does, null for none, is cancelled then.
  void sleep(MHD_Connection* connection, std::atomic<bool>& is_gone, std::shared_ptr<Session> alone);
  // Does nothing for a connection that does not sleep.
  void wake(MHD_Connection* connection);
  // Wakes those whose client is gone. What they asked is cancelled when this returns.
  void look();
  // Wakes all, and lets none sleep any more.
  void end();

 private:
  struct Sleeper {
    int socket;
    std::atomic<bool>* is_gone;
    std::shared_ptr<Session> alone;
  };
  std::vector<std::shared_ptr<Session>> wake_gone();

  std::mutex mutex_;
  std::map<MHD_Connection*, Sleeper> asleep_;  // guarded by mutex_, as is the next
  bool is_ended_ = false;
};

}  // namespace ossilar::mcp::http
