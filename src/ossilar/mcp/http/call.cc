#include "ossilar/mcp/http/call.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <vector>

#include "ossilar/mcp/protocol/revision.h"

namespace ossilar::mcp::http {
namespace {

constexpr int kHeaderMismatch = -32020;
// Errors have short documents; a longer one is a result.
constexpr std::size_t kLongestError = 8192;

const Request* only_request(const LineContent& content) {
  const auto* message = std::get_if<Message>(&content);
  return message == nullptr ? nullptr : std::get_if<Request>(message);
}

std::string named_version(const Map& params) {
  return utils::string_member(utils::member(params, "_meta"), meta_key::kVersion);
}

bool is_stateless_name(const std::string& name) {
  const Revision* revision = find_revision(name);
  return revision != nullptr && is_stateless(*revision);
}

bool is_answered(const Message& message) {
  return std::holds_alternative<Request>(message) || std::holds_alternative<Malformed>(message);
}

// What Mcp-Name repeats, none for a method that has no such thing.
std::optional<std::string> name_in(const Request& request) {
  constexpr std::array<std::pair<std::string_view, const char*>, 3> kNamed{
      {{"tools/call", "name"}, {"prompts/get", "name"}, {"resources/read", "uri"}}};
  for (const auto& [method, key] : kNamed) {
    if (request.method == method && utils::member(request.params, key).is_string())
      return utils::string_member(request.params, key);
  }
  return std::nullopt;
}

// A header cannot hold every text; one that it cannot is sent as =?base64?...?=.
std::string decoded(const std::string& value) {
  constexpr std::string_view kBegin = "=?base64?";
  constexpr std::string_view kEnd = "?=";
  if (!value.starts_with(kBegin) || !value.ends_with(kEnd) || value.size() < kBegin.size() + kEnd.size())
    return value;
  const std::string coded = value.substr(kBegin.size(), value.size() - kBegin.size() - kEnd.size());
  std::vector<unsigned char> bytes(coded.size() + 1);
  const int size = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(coded.data()),
                                   static_cast<int>(coded.size()));
  if (size < 0) return value;
  // It counts the padding as bytes.
  const auto padding = coded.ends_with("==") ? 2 : coded.ends_with('=') ? 1 : 0;
  return {bytes.begin(), bytes.begin() + std::max(0, size - padding)};
}

std::string mismatch(const Request& request, const std::string& header, const std::string& what) {
  return error_line(request.id, kHeaderMismatch, "the header " + header + " must be " + what);
}

}  // namespace

Kind kind_of(const LineContent& content, const Head& head) {
  const Request* request = only_request(content);
  if (request != nullptr && !named_version(request->params).empty()) return Kind::stands_alone;
  if (is_stateless_name(head.protocol_version)) return Kind::stands_alone;
  return request != nullptr && request->method == "initialize" ? Kind::begins : Kind::belongs;
}

bool wants_answer(const LineContent& content) {
  if (const auto* message = std::get_if<Message>(&content)) return is_answered(*message);
  const auto& batch = std::get<std::vector<Message>>(content);
  return batch.empty() || std::any_of(batch.begin(), batch.end(), is_answered);
}

std::optional<std::string> disagreement(const LineContent& content, const Head& head) {
  const Request* request = only_request(content);
  if (request == nullptr) return std::nullopt;  // the session says what is wrong with it
  const std::string version = named_version(request->params);
  if (version != head.protocol_version)
    return mismatch(*request, "MCP-Protocol-Version", "the version in params._meta");
  if (head.mcp_method != request->method) return mismatch(*request, "Mcp-Method", "the method of the body");
  const auto name = name_in(*request);
  if (name && decoded(head.mcp_name) != *name)
    return mismatch(*request, "Mcp-Name", "the name or address in the body's params");
  return std::nullopt;
}

bool is_error(const std::string& document) {
  if (document.size() > kLongestError) return false;
  return utils::member(Map::parse(document, nullptr, false), "error").is_object();
}

int status_of(const std::string& document, Kind kind) {
  if (!is_error(document)) return 200;
  const Map answer = Map::parse(document, nullptr, false);
  const Map& error = answer.at("error");
  if (!answer.contains("id")) return 400;
  if (kind != Kind::stands_alone) return 200;
  const int code = error.value("code", 0);
  if (code == error_code::kMethodNotFound) return 404;
  const bool is_unread = code == error_code::kParse || code == error_code::kInvalidRequest ||
                         code == error_code::kUnsupportedVersion || code == kHeaderMismatch;
  return is_unread ? 400 : 200;
}

}  // namespace ossilar::mcp::http
