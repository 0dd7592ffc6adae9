// What the server answers to a request. Apart from sockets and threads, so that every request can be tried
// without a server.
//
// Thread-safety: any thread. Failures: as the views'; the caller makes an answer of them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/utils/task.h"
#include "ossilar/web/site.h"

namespace ossilar::web {

struct Request {
  std::string method = "GET";
  std::string path = "/";  // as sent, with its percent-encodings, without the query
  std::string query = {};  // the value of "q", as sent
  std::string host = {};   // the header's value, "" for none
  std::string if_none_match = {};
};

struct Response {
  int status = 200;
  std::string body = {};
  std::vector<std::pair<std::string, std::string>> headers = {};
  bool is_event_stream = false;  // no body, but events as they come
};

// Never throws for what is in the request.
Response respond(const Request& request, const Site& site, std::uint16_t port, const utils::Task& task);

// An answer that is a line of text, with the headers that every answer has.
Response plain_response(int status, const std::string& line);

}  // namespace ossilar::web
