#include "ossilar/mcp/message.h"

#include "ossilar/utils/files.h"

namespace ossilar::mcp {
namespace {

bool is_id(const Map& value) { return value.is_string() || value.is_number_integer(); }

Malformed invalid(const Map& id, const std::string& message) {
  return {.id = is_id(id) ? id : Map(), .code = error_code::kInvalidRequest, .message = message};
}

// What is wrong with `value` as a message, or "".
std::string fault_of(const Map& value) {
  if (!value.is_object()) return "a message is an object";
  if (utils::member(value, "jsonrpc") != "2.0") return "a message has \"jsonrpc\": \"2.0\"";
  if (value.contains("id") && !is_id(value.at("id"))) return "an id is a string or an integer";
  if (!value.contains("method")) return "a request has a \"method\"";
  if (!value.at("method").is_string()) return "\"method\" is a string";
  if (value.contains("params") && !value.at("params").is_object()) return "\"params\" is an object";
  return "";
}

bool is_response(const Map& value) {
  return value.is_object() && !value.contains("method") &&
         (value.contains("result") || value.contains("error"));
}

Message message_of(Map value) {
  if (is_response(value)) return Response{};
  if (std::string fault = fault_of(value); !fault.empty()) return invalid(utils::member(value, "id"), fault);
  std::string method = value.at("method").get<std::string>();
  Map params = value.contains("params") ? std::move(value.at("params")) : Map::object();
  if (!value.contains("id")) return Notification{std::move(method), std::move(params)};
  return Request{std::move(value.at("id")), std::move(method), std::move(params)};
}

Malformed unreadable(const std::string& message) {
  return {.id = {}, .code = error_code::kParse, .message = message};
}

Map envelope(const Map& id) {
  Map message{{"jsonrpc", "2.0"}};
  if (!id.is_null()) message["id"] = id;
  return message;
}

}  // namespace

// Names of files may hold bytes that are not UTF-8, and a message must not.
std::string line_of(const Map& message) {
  return message.dump(-1, ' ', false, Map::error_handler_t::replace);
}

LineContent read_line(std::string_view line) {
  Map value;
  try {
    utils::require_utf8(line, "the line");
    value = utils::parse_json(line, "the line");
  } catch (const utils::Error& error) {
    return Message(unreadable(error.what()));
  }
  if (!value.is_array()) return message_of(std::move(value));
  std::vector<Message> batch;
  batch.reserve(value.size());
  for (Map& member : value) batch.push_back(message_of(std::move(member)));
  return batch;
}

Map result_message(const Map& id, const Map& result) {
  Map message = envelope(id);
  message["result"] = result;
  return message;
}

Map error_message(const Map& id, int code, const std::string& message, const Map& data) {
  Map error{{"code", code}, {"message", message}};
  if (!data.is_null()) error["data"] = data;
  Map reply = envelope(id);
  reply["error"] = std::move(error);
  return reply;
}

std::string result_line(const Map& id, const Map& result) { return line_of(result_message(id, result)); }

std::string error_line(const Map& id, int code, const std::string& message, const Map& data) {
  return line_of(error_message(id, code, message, data));
}

std::string notification_line(const std::string& method, const Map& params) {
  return line_of(Map{{"jsonrpc", "2.0"}, {"method", method}, {"params", params}});
}

}  // namespace ossilar::mcp
