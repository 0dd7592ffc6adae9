// A line is parsed as JSON, then its values are sorted into requests, notifications, responses and faults.
//
// A line that is no JSON still gets an answer under its id. A JSON parser cannot find that id: it stops at
// the fault, and clients put the id last, behind the text that is at fault. So id_in() scans quotes and
// brackets instead, in one pass and without recursion, since the text is anything.
#include "ossilar/mcp/protocol/message.h"

#include "ossilar/utils/files.h"

namespace ossilar::mcp {
namespace {

// The protocol has no null ids, and a fraction may not come back as the same number.
bool is_id(const Map& value) { return value.is_string() || value.is_number_integer(); }

// An id that is none is not sent back: the error then carries no id at all.
Malformed invalid(const Map& id, const std::string& message) {
  return {.id = is_id(id) ? id : Map(), .code = error_code::kInvalidRequest, .message = message};
}

// What is wrong with `value` as a request, or "". `"params": null` passes: clients send it for no params.
std::string fault_of(const Map& value) {
  if (!value.is_object()) return "a message must be an object";
  if (utils::member(value, "jsonrpc") != "2.0") return "a message must have \"jsonrpc\": \"2.0\"";
  if (value.contains("id") && !is_id(value.at("id"))) return "\"id\" must be a string or an integer";
  if (!value.contains("method")) return "a request must have a \"method\"";
  if (!value.at("method").is_string()) return "\"method\" must be a string";
  const Map& params = utils::member(value, "params");
  return params.is_null() || params.is_object() ? "" : "\"params\" must be an object";
}

bool is_response(const Map& value) {
  return value.is_object() && !value.contains("method") &&
         (value.contains("result") || value.contains("error"));
}

// A method and no id: never answered, not even with an error, whatever else is wrong with it.
bool is_notification(const Map& value) {
  return value.is_object() && !value.contains("id") && utils::member(value, "method").is_string();
}

// The order matters. A response has no method, and a notification may have faults; both would be answered
// with an error if the check for faults came first.
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

// The end of the JSON string whose opening quote is at `at`: the position after its closing quote, or the end
// of the text if it is never closed.
std::size_t string_end(std::string_view text, std::size_t at) {
  for (++at; at < text.size(); ++at) {
    if (text[at] == '"') return at + 1;
    if (text[at] == '\\') ++at;  // what is escaped is no closing quote
  }
  return text.size();
}

// The value of the id whose key ends where `text` begins; null if it is no id. A string "id" that is a value
// and not a key has no colon after it and so gives null too.
Map id_value(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  std::size_t at = text.find_first_not_of(kBlanks);
  if (at == text.npos || text[at] != ':') return {};
  at = text.find_first_not_of(kBlanks, at + 1);
  if (at == text.npos) return {};
  const std::size_t end = text[at] == '"' ? string_end(text, at) : text.find_first_of(" \t,}", at);
  // Without exceptions: a value that does not parse is a discarded one, and so no id.
  const Map value = Map::parse(text.substr(at, end - at), nullptr, false);
  return is_id(value) ? value : Map();
}

Map envelope(const Map& id) {
  Map message{{"jsonrpc", "2.0"}};
  if (!id.is_null()) message["id"] = id;
  return message;
}

}  // namespace

// File names may hold bytes that are not UTF-8, a message must not, and dump() would throw on them by
// default.
std::string line_of(const Map& message) {
  return message.dump(-1, ' ', false, Map::error_handler_t::replace);
}

// Skips strings and counts brackets; nothing else of the syntax matters. Only at depth one is an id the
// message's own: deeper it belongs to the params, or to a message of a batch.
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
    if ((c == '}' || c == ']') && depth > 0) --depth;  // too many closing ones must not wrap around
    at = end;
  }
  return {};
}

// At the end of a cut line the depth is not known, so the last `"id"` there counts only by what follows it.
Map id_in_cut(std::string_view beginning, std::string_view end) {
  Map id = id_in(beginning);
  const std::size_t key = end.rfind("\"id\"");
  // After a backslash it is text within a string.
  if (!id.is_null() || key == end.npos || (key > 0 && end[key - 1] == '\\')) return id;
  // One closing brace, as the last byte, is the message's own. With a second one before it the id was inside
  // params.
  const std::string_view value = end.substr(key + 4);
  return value.find('}') + 1 == value.size() ? id_value(value) : Map();
}

LineContent read_line(std::string_view line) {
  Map value;
  try {
    // First, for its message: it names the byte and its place.
    utils::require_utf8(line, "the line");
    value = utils::parse_json(line, "the line");
  } catch (const utils::Error& error) {
    return Message(Malformed{.id = id_in(line), .code = error_code::kParse, .message = error.what()});
  }
  if (!value.is_array()) return message_of(std::move(value));
  // Refused as a whole, with one error: an error for each message would be the flood that the limit prevents.
  if (value.size() > kMostInBatch) {
    return Message(
        invalid({}, "a batch must not have more than " + std::to_string(kMostInBatch) + " messages"));
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
