// One libcurl handle per request. A handle that is kept would save connections, but may be used by one thread
// at a time only, and would carry options from one request to the next; the price is a new connection per
// request.
//
// libcurl reports what our callbacks do as errors of its own: a cancelled transfer as an aborted one, an
// answer that is too long as a failed write. So post_json() asks for our own reasons first, in that order,
// and looks at libcurl's code last.
#include "ossilar/search/http_client.h"

#include <arpa/inet.h>
#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <string_view>

namespace ossilar::search {
namespace {

struct EasyFree {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct HeadersFree {
  void operator()(curl_slist* headers) const { curl_slist_free_all(headers); }
};
struct AddressFree {
  void operator()(CURLU* address) const { curl_url_cleanup(address); }
};
using Easy = std::unique_ptr<CURL, EasyFree>;
using Headers = std::unique_ptr<curl_slist, HeadersFree>;

// Once a process; the static makes threads that come at the same time wait for the first. It is never undone:
// other threads may be in a transfer when the process ends.
void use_curl() {
  static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (ready != CURLE_OK) throw HttpFailure(curl_easy_strerror(ready), false);
}

// The body of an answer as far as it has arrived, and its size limit.
struct Received {
  std::string body;
  std::size_t largest;
  bool is_too_long = false;
};

// The limit is checked before bytes are appended: the length that a service announces may be missing or
// wrong.
std::size_t receive(char* bytes, std::size_t /*one*/, std::size_t size, void* into) {
  auto& received = *static_cast<Received*>(into);
  received.is_too_long = received.body.size() + size > received.largest;
  if (received.is_too_long) return 0;  // fewer than `size`, which ends the transfer
  received.body.append(bytes, size);
  return size;
}

// Called by libcurl during a transfer, about once a second while nothing arrives. Asks rather than calls
// Task::check(), as no exception may pass through libcurl's C code; a result other than 0 ends the transfer.
int look_whether_cancelled(void* task, curl_off_t /*down*/, curl_off_t /*downed*/, curl_off_t /*up*/,
                           curl_off_t /*upped*/) {
  return static_cast<const utils::Task*>(task)->is_cancelled() ? 1 : 0;
}

Headers headers_of(const HttpRequest& request) {
  Headers headers(curl_slist_append(nullptr, "Content-Type: application/json"));
  const auto add = [&](const std::string& line) {
    headers.reset(curl_slist_append(headers.release(), line.c_str()));
  };
  // Removes libcurl's "Expect: 100-continue", with which it waits before it sends a large body. Not every
  // server answers that, and then the wait is lost.
  add("Expect:");
  if (!request.bearer.empty()) add("Authorization: Bearer " + request.bearer);
  return headers;
}

// libcurl keeps pointers to the body, the headers, `received` and `task`: all must outlive the transfer.
void set_options(CURL* handle, const HttpRequest& request, curl_slist* headers, Received& received,
                 const utils::Task& task) {
  const auto set = [handle](CURLoption option, auto value) {
    const CURLcode code = curl_easy_setopt(handle, option, value);
    if (code != CURLE_OK) throw HttpFailure(curl_easy_strerror(code), false);
  };
  set(CURLOPT_URL, request.url.c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  // "" switches off the environment's proxies. A proxy may be another machine, and a key that goes to this
  // machine without encryption would be readable there.
  if (parse_address(request.url).is_loopback()) set(CURLOPT_PROXY, "");
  set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.json.size()));
  set(CURLOPT_POSTFIELDS, request.json.c_str());
  set(CURLOPT_HTTPHEADER, headers);
  set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.connect_timeout.count()));
  set(CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout.count()));
  // Otherwise libcurl may time out name lookups by SIGALRM, which is unsafe with threads.
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_WRITEFUNCTION, &receive);
  set(CURLOPT_WRITEDATA, static_cast<void*>(&received));
  set(CURLOPT_NOPROGRESS, 0L);  // without it the next function is never called
  set(CURLOPT_XFERINFOFUNCTION, &look_whether_cancelled);
  set(CURLOPT_XFERINFODATA, static_cast<const void*>(&task));
}

// Failures of the network and of a service that restarts. Not those of certificates or of the address, which
// stay until somebody corrects them.
bool may_pass(CURLcode code) {
  constexpr std::array kPassing{CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_RESOLVE_PROXY,
                                CURLE_COULDNT_CONNECT,      CURLE_OPERATION_TIMEDOUT,
                                CURLE_GOT_NOTHING,          CURLE_SEND_ERROR,
                                CURLE_RECV_ERROR,           CURLE_PARTIAL_FILE};
  return std::find(kPassing.begin(), kPassing.end(), code) != kPassing.end();
}

// "" for a part that the address does not have.
std::string part_of(CURLU* address, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(address, part, &text, 0) != CURLUE_OK) return "";
  const std::unique_ptr<char, decltype(&curl_free)> owned(text, curl_free);
  return text;
}

}  // namespace

HttpAnswer post_json(const HttpRequest& request, const utils::Task& task) {
  use_curl();
  task.check();
  const Easy handle(curl_easy_init());
  if (!handle) throw HttpFailure("cannot initialise libcurl", false);
  const Headers headers = headers_of(request);
  Received received{.body = "", .largest = request.largest_answer};
  set_options(handle.get(), request, headers.get(), received, task);
  const CURLcode code = curl_easy_perform(handle.get());
  task.check();
  if (received.is_too_long) {
    throw HttpFailure("its answer is longer than " + std::to_string(request.largest_answer) + " bytes",
                      false);
  }
  if (code != CURLE_OK) throw HttpFailure(curl_easy_strerror(code), may_pass(code));
  HttpAnswer answer{.status = 0, .body = std::move(received.body), .retry_after = {}};
  curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &answer.status);
  curl_off_t seconds = 0;  // of the header, which may also be a date; libcurl converts it
  if (curl_easy_getinfo(handle.get(), CURLINFO_RETRY_AFTER, &seconds) == CURLE_OK && seconds > 0)
    answer.retry_after = std::chrono::seconds(seconds);
  return answer;
}

// libcurl resolves localhost and the names below it by itself, so no name server can point them to another
// machine. The leading dot makes "localhost" end in ".localhost" too, and "notlocalhost" not.
bool HttpAddress::is_loopback() const {
  constexpr std::string_view kDomain = ".localhost";
  std::string name = "." + host;
  std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
  // curl_url_set() has normalised spellings such as 127.1. The check keeps out names that only begin like a
  // number, such as 127.0.0.1.org.
  in_addr number{};
  const bool is_number = inet_pton(AF_INET, host.c_str(), &number) == 1;
  return name.ends_with(kDomain) || (is_number && host.starts_with("127.")) || host == "[::1]";
}

// By libcurl's own parser: with another one, an address that the two read differently would be judged as one
// host and fetched from another.
HttpAddress parse_address(const std::string& url) {
  const std::unique_ptr<CURLU, AddressFree> address(curl_url());
  const bool readable = address && curl_url_set(address.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK;
  HttpAddress parsed;
  if (readable) {
    parsed.scheme = part_of(address.get(), CURLUPART_SCHEME);
    parsed.host = part_of(address.get(), CURLUPART_HOST);
  }
  if (parsed.scheme != "http" && parsed.scheme != "https")
    throw utils::ConfigError("[embedding] url is not an http or https address");
  const bool has_user = !part_of(address.get(), CURLUPART_USER).empty();
  if (has_user || !part_of(address.get(), CURLUPART_PASSWORD).empty()) {
    throw utils::ConfigError(
        "[embedding] url has a user name or password; set api_key_env to the variable that holds the key");
  }
  const std::string port = part_of(address.get(), CURLUPART_PORT);
  parsed.where = parsed.host + (port.empty() ? "" : ":" + port) + part_of(address.get(), CURLUPART_PATH);
  while (parsed.where.ends_with("/")) parsed.where.pop_back();
  return parsed;
}

}  // namespace ossilar::search
