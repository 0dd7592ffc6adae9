// Where messages go, whatever carries them: lines of a pipe (transport.h), the answer to a request over HTTP
// or a stream of events (mcp/http).
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace ossilar::mcp {

// Thread-safety: every member may be called from any thread.
class Outlet {
 public:
  Outlet() = default;
  Outlet(const Outlet&) = delete;
  Outlet& operator=(const Outlet&) = delete;
  virtual ~Outlet() = default;

  // Sends a message, JSON without a line feed. False once nobody reads any more; the message is lost then.
  virtual bool write(std::string_view text) = 0;

  // The same without a wait for the reader: for what is said while others wait for the caller, as a log
  // record under the write lock. Messages come in the order in which they were given to either function.
  virtual void write_later(std::string text) = 0;
};

// The outlet for a session, which shares it, while the caller keeps it and outlives whoever writes to it.
inline std::shared_ptr<Outlet> unowned(Outlet& outlet) {
  return std::shared_ptr<Outlet>(std::shared_ptr<void>(), &outlet);
}

}  // namespace ossilar::mcp
