// One POST and its answer: the requests of its body run on the threads of the service, and what they say
// comes here. As long as nobody knows whether there will be more than the answer, nothing is sent; then it
// becomes a JSON document, or a stream of events if something is told before.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "ossilar/mcp/http/event_stream.h"
#include "ossilar/mcp/protocol/outlet.h"

namespace ossilar::mcp::http {

// Thread-safety: every member may be called from any thread.
class Exchange {
 public:
  // `stream` is for the case that one is needed; `primes` whether it begins with an event without data.
  Exchange(std::shared_ptr<EventStream> stream, bool primes) : stream_(std::move(stream)), primes_(primes) {}
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  // Where the session writes. When it is let go of without an answer, as of a request that was cancelled, the
  // exchange ends without one.
  static std::shared_ptr<Outlet> outlet(const std::shared_ptr<Exchange>& exchange);

  enum class Form { undecided, document, events };
  // The form of the answer. While it is undecided, `wake` is kept, and called once when it is decided.
  Form form(std::function<void()> wake);
  // Forgets what form() was given.
  void forget_waker();

  const std::string& document() const { return document_; }  // once the form is `document`
  const std::shared_ptr<EventStream>& stream() const { return stream_; }

 private:
  class Writer;
  void take(std::string_view text);
  void end();
  void decide(Form form);

  const std::shared_ptr<EventStream> stream_;
  const bool primes_;
  std::mutex mutex_;
  Form form_ = Form::undecided;  // guarded by mutex_, as are the next two
  std::string document_;         // never changes once the form is decided
  std::function<void()> wake_;
};

}  // namespace ossilar::mcp::http
