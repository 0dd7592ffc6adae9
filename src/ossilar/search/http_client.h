// One request to an HTTP service, through libcurl. Used by http_embedder.cc alone, which decides what to ask,
// what to try again and what to show. Nothing is shared between requests, and nothing is left of one that
// fails.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "ossilar/utils/error.h"
#include "ossilar/utils/task.h"

namespace ossilar::search {

// The request got no answer. is_passing() says whether the same request may succeed later: there was no
// connection, it broke, or time ran out.
class HttpFailure : public utils::Error {
 public:
  HttpFailure(const std::string& message, bool is_passing, utils::Place place = utils::Place::current())
      : Error(message, place), is_passing_(is_passing) {}
  bool is_passing() const { return is_passing_; }

 private:
  bool is_passing_;
};

struct HttpRequest {
  std::string url;
  std::string json;    // the body
  std::string bearer;  // the key, "" for none; it must be fit for a header line, which is not checked here
  // Far above what a connection takes; a service that is down is noticed well before `timeout`.
  std::chrono::milliseconds connect_timeout{std::chrono::seconds(10)};
  // From the call to the last byte of the answer. A service may compute for long, but an agent waits for it.
  std::chrono::milliseconds timeout{std::chrono::seconds(60)};
  std::size_t largest_answer = 0;  // bytes of the body; a longer one is a HttpFailure that does not pass
};

struct HttpAnswer {
  long status = 0;  // whatever it is: an error status is an answer too
  std::string body;
  std::optional<std::chrono::seconds> retry_after;  // the wait that a Retry-After header asks for, above 0
};

// Posts the request and waits for the answer. Only http and https, certificates checked, no redirect
// followed, no cookie, no stored password. Proxies are those of the environment, but none for this machine
// itself. Throws HttpFailure when there is no answer, utils::ConfigError as parse_address() does, and
// utils::Cancelled within about a second after `task` is cancelled.
//
// Thread-safety: may be called from any thread.
HttpAnswer post_json(const HttpRequest& request, const utils::Task& task);

// The parts of an address by which services are told apart.
struct HttpAddress {
  std::string scheme = {};  // "http" or "https"
  std::string host = {};
  std::string where = {};  // host, the port if there is one, and the path without slashes at its end
  // Whether it is this machine: localhost, a name that ends in .localhost, 127.0.0.0/8 or ::1. Decided by the
  // text alone; no name server is asked.
  bool is_loopback() const;
};
// Throws utils::ConfigError for anything but an http or https address, and for one with a user or a password.
// The message does not quote the address, which may contain that password.
HttpAddress parse_address(const std::string& url);

}  // namespace ossilar::search
