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

void use_curl() {
  static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (ready != CURLE_OK) throw HttpFailure(curl_easy_strerror(ready), false);
}

// What a transfer writes into, and how far it may go.
struct Received {
  std::string body;
  std::size_t largest;
  bool is_too_long = false;
};

std::size_t receive(char* bytes, std::size_t /*one*/, std::size_t size, void* into) {
  auto& received = *static_cast<Received*>(into);
  received.is_too_long = received.body.size() + size > received.largest;
  if (received.is_too_long) return 0;  // which ends the transfer
  received.body.append(bytes, size);
  return size;
}

// No exception may pass through libcurl; a value other than 0 ends the transfer.
int look_whether_cancelled(void* task, curl_off_t /*down*/, curl_off_t /*downed*/, curl_off_t /*up*/,
                           curl_off_t /*upped*/) {
  return static_cast<const utils::Task*>(task)->is_cancelled() ? 1 : 0;
}

Headers headers_of(const HttpRequest& request) {
  Headers headers(curl_slist_append(nullptr, "Content-Type: application/json"));
  const auto add = [&](const std::string& line) {
    headers.reset(curl_slist_append(headers.release(), line.c_str()));
  };
  add("Expect:");  // no waiting for a go-ahead
  if (!request.bearer.empty()) add("Authorization: Bearer " + request.bearer);
  return headers;
}

void set_options(CURL* handle, const HttpRequest& request, curl_slist* headers, Received& received,
                 const utils::Task& task) {
  const auto set = [handle](CURLoption option, auto value) {
    const CURLcode code = curl_easy_setopt(handle, option, value);
    if (code != CURLE_OK) throw HttpFailure(curl_easy_strerror(code), false);
  };
  set(CURLOPT_URL, request.url.c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  // A proxy may be another machine, and would see the key.
  if (parse_address(request.url).is_loopback()) set(CURLOPT_PROXY, "");
  set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.json.size()));
  set(CURLOPT_POSTFIELDS, request.json.c_str());
  set(CURLOPT_HTTPHEADER, headers);
  set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.connect_timeout.count()));
  set(CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout.count()));
  set(CURLOPT_NOSIGNAL, 1L);  // signals and threads do not go together
  set(CURLOPT_WRITEFUNCTION, &receive);
  set(CURLOPT_WRITEDATA, static_cast<void*>(&received));
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_XFERINFOFUNCTION, &look_whether_cancelled);
  set(CURLOPT_XFERINFODATA, static_cast<const void*>(&task));
}

bool may_pass(CURLcode code) {
  constexpr std::array kPassing{CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_RESOLVE_PROXY,
                                CURLE_COULDNT_CONNECT,      CURLE_OPERATION_TIMEDOUT,
                                CURLE_GOT_NOTHING,          CURLE_SEND_ERROR,
                                CURLE_RECV_ERROR,           CURLE_PARTIAL_FILE};
  return std::find(kPassing.begin(), kPassing.end(), code) != kPassing.end();
}

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
  if (!handle) throw HttpFailure("libcurl cannot be used", false);
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
  curl_off_t seconds = 0;
  if (curl_easy_getinfo(handle.get(), CURLINFO_RETRY_AFTER, &seconds) == CURLE_OK && seconds > 0)
    answer.retry_after = std::chrono::seconds(seconds);
  return answer;
}

// libcurl never asks a name server for localhost and the names below it.
bool HttpAddress::is_loopback() const {
  constexpr std::string_view kDomain = ".localhost";
  std::string name = "." + host;
  std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
  in_addr number{};  // curl_url_set() has brought the spellings of a number to one
  const bool is_number = inet_pton(AF_INET, host.c_str(), &number) == 1;
  return name.ends_with(kDomain) || (is_number && host.starts_with("127.")) || host == "[::1]";
}

HttpAddress parse_address(const std::string& url) {
  const std::unique_ptr<CURLU, AddressFree> address(curl_url());
  const bool readable = address && curl_url_set(address.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK;
  HttpAddress parsed;
  if (readable) {
    parsed.scheme = part_of(address.get(), CURLUPART_SCHEME);
    parsed.host = part_of(address.get(), CURLUPART_HOST);
  }
  if (parsed.scheme != "http" && parsed.scheme != "https")
    throw utils::ConfigError("[embedding] url is no http or https address");
  const bool has_user = !part_of(address.get(), CURLUPART_USER).empty();
  if (has_user || !part_of(address.get(), CURLUPART_PASSWORD).empty()) {
    throw utils::ConfigError(
        "[embedding] url holds a user; name the variable of a key as api_key_env instead");
  }
  const std::string port = part_of(address.get(), CURLUPART_PORT);
  parsed.where = parsed.host + (port.empty() ? "" : ":" + port) + part_of(address.get(), CURLUPART_PATH);
  while (parsed.where.ends_with("/")) parsed.where.pop_back();
  return parsed;
}

}  // namespace ossilar::search
