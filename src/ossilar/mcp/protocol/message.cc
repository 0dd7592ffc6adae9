#include "ossilar/mcp/protocol/message.h"

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
  const Map& params = utils::member(value, "params");
  return params.is_null() || params.is_object() ? "" : "\"params\" is an object";
}

bool is_response(const Map& value) {
  return value.is_object() && !value.contains("method") &&
         (value.contains("result") || value.contains("error"));
}

// Nothing that has a method and no id is ever answered, however it looks otherwise.
bool is_notification(const Map& value) {
  return value.is_object() && !value.contains("id") && utils::member(value, "method").is_string();
}

Message message_of(Map value) {
  if (is_response(value)) return Response{};
  if (is_notification(value)) {
    const Map& params = utils::member(value, "params");
    return Notification{value.at("method").get<std::string>(), params.is_object() ? params : Map::object()};
  }
  if (std::string fault = fault_of(value); !fault.empty()) return invalid(utils::member(value, "id"), fault);
  std::string method = value.at("method").get<std::string>();
  Map params = value.contains("params") && value.at("params").is_object() ? std::move(value.at("params"))
                                                                          : Map::object();
  return Request{std::move(value.at("id")), std::move(method), std::move(params)};
}

// Where the JSON string that begins at `at` ends: behind its closing quote, or at the end of the text.
std::size_t string_end(std::string_view text, std::size_t at) {
  for (++at; at < text.size(); ++at) {
    if (text[at] == '"') return at + 1;
    if (text[at] == '\\') ++at;
  }
  return text.size();
}

// The id whose key ends right before `text`, and what follows it; null when there is none.
Map id_value(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  std::size_t at = text.find_first_not_of(kBlanks);
  if (at == text.npos || text[at] != ':') return {};
  at = text.find_first_not_of(kBlanks, at + 1);
  if (at == text.npos) return {};
  const std::size_t end = text[at] == '"' ? string_end(text, at) : text.find_first_of(" \t,}", at);
  const Map value = Map::parse(text.substr(at, end - at), nullptr, false);
  return is_id(value) ? value : Map();
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

// Strings are passed over and brackets counted; what is wrong with the rest does not matter.
Map id_in(std::string_view line) {
  constexpr std::string_view kKey = "\"id\"";
  std::size_t depth = 0;
  for (std::size_t at = 0; at < line.size();) {
    const char c = line[at];
    const std::size_t end = c == '"' ? string_end(line, at) : at + 1;
    if (depth == 1 && line.substr(at, end - at) == kKey) {
      Map id = id_value(line.substr(end));
      if (!id.is_null()) return id;
    }
    if (c == '{' || c == '[') ++depth;
    if ((c == '}' || c == ']') && depth > 0) --depth;
    at = end;
  }
  return {};
}

Map id_in_cut(std::string_view beginning, std::string_view end) {
  Map id = id_in(beginning);
  const std::size_t key = end.rfind("\"id\"");
  if (!id.is_null() || key == end.npos || (key > 0 && end[key - 1] == '\\')) return id;
  // The message's own id is closed by the message's brace alone.
  const std::string_view value = end.substr(key + 4);
  return value.find('}') + 1 == value.size() ? id_value(value) : Map();
}

LineContent read_line(std::string_view line) {
  Map value;
  try {
    utils::require_utf8(line, "the line");
    value = utils::parse_json(line, "the line");
  } catch (const utils::Error& error) {
    return Message(Malformed{.id = id_in(line), .code = error_code::kParse, .message = error.what()});
  }
  if (!value.is_array()) return message_of(std::move(value));
  if (value.size() > kMostInBatch) {
    return Message(invalid({}, "a batch has at most " + std::to_string(kMostInBatch) + " messages"));
  }
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
