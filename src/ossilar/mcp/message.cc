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

// Looks for the id of a message that cannot be read to its end.
class IdFinder final : public nlohmann::json_sax<Map> {
 public:
  Map id;

  bool null() override { return true; }
  bool boolean(bool /*value*/) override { return true; }
  bool number_integer(number_integer_t value) override { return take(value); }
  bool number_unsigned(number_unsigned_t value) override { return take(value); }
  bool number_float(number_float_t /*value*/, const string_t& /*text*/) override { return true; }
  bool string(string_t& value) override { return take(value); }
  bool binary(binary_t& /*value*/) override { return true; }
  bool start_object(std::size_t /*size*/) override { return enter(); }
  bool start_array(std::size_t /*size*/) override { return enter(); }
  bool end_object() override { return leave(); }
  bool end_array() override { return leave(); }
  bool key(string_t& value) override {
    at_id_ = depth_ == 1 && value == "id";
    return true;
  }
  bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) override {
    return false;
  }

 private:
  bool enter() {
    at_id_ = false;
    return ++depth_ <= utils::kMaxJsonDepth;
  }
  bool leave() {
    --depth_;
    return true;
  }
  template <class Value>
  bool take(const Value& value) {
    if (at_id_ && depth_ == 1) id = value;
    at_id_ = false;
    return true;
  }
  std::size_t depth_ = 0;
  bool at_id_ = false;
};

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

Map id_in(std::string_view beginning) {
  IdFinder finder;
  Map::sax_parse(beginning, &finder);
  return finder.id;
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
