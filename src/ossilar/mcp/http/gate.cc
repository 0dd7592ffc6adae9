#include "ossilar/mcp/http/gate.h"

#include <openssl/crypto.h>

#include <algorithm>

#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/own_host.h"
#include "ossilar/utils/text.h"

namespace ossilar::mcp::http {
namespace {

constexpr std::string_view kJson = "application/json";
constexpr std::string_view kEvents = "text/event-stream";

// The media type without its parameters, in lower case.
std::string bare_type(std::string_view value) {
  return utils::lower_case(utils::strip(value.substr(0, value.find(';'))));
}

bool has_token(const Gate& gate, const Head& head) {
  constexpr std::string_view kScheme = "bearer ";
  if (gate.token.empty()) return true;
  const std::string_view given = head.authorization;
  if (utils::lower_case(given.substr(0, kScheme.size())) != kScheme) return false;
  return is_same_secret(utils::strip(given.substr(kScheme.size())), gate.token);
}

std::optional<Refusal> refuse_sender(const Gate& gate, const Head& head) {
  if (!has_token(gate, head)) {
    return Refusal{
        401,
        "this server needs its token: send the header \"Authorization: Bearer TOKEN\" with the text of "
        "the file that its --token-file names"};
  }
  if (gate.is_loopback && !utils::is_own_host(head.host, gate.port))
    return Refusal{403, "the Host header does not name this server; use 127.0.0.1 or localhost"};
  if (!is_own_origin(head.origin, head.host))
    return Refusal{403, "pages of other sites may not use this server (Origin)"};
  return std::nullopt;
}

std::optional<Refusal> refuse_post(const Head& head) {
  if (bare_type(head.content_type) != kJson) return Refusal{415, "Content-Type must be application/json"};
  if (!accepts(head.accept, kJson) || !accepts(head.accept, kEvents))
    return Refusal{406, "Accept must list application/json and text/event-stream"};
  return std::nullopt;
}

std::optional<Refusal> refuse_call(const Head& head) {
  if (!head.protocol_version.empty() && find_revision(head.protocol_version) == nullptr)
    return Refusal{400, "MCP-Protocol-Version names a revision that this server does not speak"};
  if (head.method == "POST") return refuse_post(head);
  if (head.method == "GET" && !accepts(head.accept, kEvents))
    return Refusal{406, "Accept must list text/event-stream"};
  return std::nullopt;
}

bool is_get(const Head& head) { return head.method == "GET" || head.method == "HEAD"; }

}  // namespace

bool is_same_secret(std::string_view given, std::string_view secret) {
  const std::string hash = utils::sha256_hex(given);  // of one length, whatever was given
  const std::string expected = utils::sha256_hex(secret);
  return !secret.empty() && CRYPTO_memcmp(hash.data(), expected.data(), expected.size()) == 0;
}

bool is_own_origin(std::string_view origin, std::string_view host) {
  if (origin.empty()) return true;
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (origin.starts_with(scheme)) return origin.substr(scheme.size()) == host;
  }
  return false;
}

bool accepts(std::string_view accept, std::string_view type) {
  const std::string any_subtype = std::string(type.substr(0, type.find('/'))) + "/*";
  while (!accept.empty()) {
    const std::size_t comma = std::min(accept.find(','), accept.size());
    const std::string listed = bare_type(accept.substr(0, comma));
    if (listed == type || listed == any_subtype || listed == "*/*") return true;
    accept.remove_prefix(std::min(comma + 1, accept.size()));
  }
  return false;
}

std::optional<Refusal> refuse(const Gate& gate, const Head& head) {
  if (head.path == "/healthz" && is_get(head)) return std::nullopt;
  if (auto refusal = refuse_sender(gate, head)) return refusal;
  if (head.path == "/metrics" && is_get(head)) return std::nullopt;
  if (head.path != kEndpoint) return Refusal{404, "there is nothing here; the endpoint is /mcp"};
  if (head.method == "POST" || head.method == "GET" || head.method == "DELETE") return refuse_call(head);
  return Refusal{405, "use POST, GET or DELETE"};
}

}  // namespace ossilar::mcp::http
