// Each accessor checks and throws in one place, so a bad field gives the same error whichever method reads
// it. Null counts as missing: clients send it for what they leave out.
#include "ossilar/mcp/protocol/params.h"

#include "ossilar/mcp/protocol/message.h"

namespace ossilar::mcp {
namespace {

[[noreturn]] void refuse(const char* key, const char* wanted) {
  throw ProtocolError(error_code::kInvalidParams, std::string("params.") + key + " must be " + wanted);
}

}  // namespace

std::optional<std::string> optional_string(const Map& params, const char* key) {
  const Map& value = utils::member(params, key);
  if (value.is_null()) return std::nullopt;
  if (!value.is_string()) refuse(key, "a string");
  return value.get<std::string>();
}

std::string required_string(const Map& params, const char* key) {
  auto value = optional_string(params, key);
  if (!value) refuse(key, "a string");
  return *std::move(value);
}

const Map& optional_object(const Map& params, const char* key) {
  static const Map empty = Map::object();  // something for the reference to point at when there is no field
  const Map& value = utils::member(params, key);
  if (value.is_null()) return empty;
  if (!value.is_object()) refuse(key, "an object");
  return value;
}

const Map& required_object(const Map& params, const char* key) {
  if (!utils::member(params, key).is_object()) refuse(key, "an object");
  return params.at(key);
}

}  // namespace ossilar::mcp
