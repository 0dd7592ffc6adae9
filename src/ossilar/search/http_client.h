// One request to an HTTP service, through libcurl.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "ossilar/utils/error.h"
#include "ossilar/utils/task.h"

namespace ossilar::search {

// The request got no answer. `is_passing` for what may be otherwise a moment later: no connection, no time.
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
  std::string bearer;  // the key, "" for none
  std::chrono::milliseconds connect_timeout{std::chrono::seconds(10)};
  std::chrono::milliseconds timeout{std::chrono::seconds(60)};  // for all of it
  std::size_t largest_answer = 0;                               // bytes
};

struct HttpAnswer {
  long status = 0;
  std::string body;
  std::optional<std::chrono::seconds> retry_after;  // what the service asked for
};

// Posts the request. http and https alone, certificates checked, no redirect followed, no cookie, no stored
// password; proxies as the environment has them, but none on the way to this machine itself. Throws
// HttpFailure, and utils::Cancelled when `task` is cancelled on the way.
//
// Thread-safety: may be called from any thread.
HttpAnswer post_json(const HttpRequest& request, const utils::Task& task);

// The parts of an address that tell services apart. Throws utils::ConfigError, without quoting it, for one
// that is no http or https address or that holds a user.
struct HttpAddress {
  std::string scheme = {};  // "http" or "https"
  std::string host = {};
  std::string where = {};  // host, port where it is given, and path without a slash at its end
  // Whether it is this machine: localhost, a name that ends in .localhost, 127.0.0.0/8 or ::1.
  bool is_loopback() const;
};
HttpAddress parse_address(const std::string& url);

}  // namespace ossilar::search
