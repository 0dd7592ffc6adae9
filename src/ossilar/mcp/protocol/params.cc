#include "ossilar/mcp/protocol/params.h"

#include <algorithm>
#include <vector>

#include "ossilar/mcp/protocol/message.h"
#include "ossilar/utils/text.h"

namespace ossilar::mcp {
namespace {

[[noreturn]] void refuse(const char* key, const char* wanted) {
  throw ProtocolError(error_code::kInvalidParams, std::string("params.") + key + " must be " + wanted);
}

std::string names_of(const Map& values) {
  std::vector<std::string> names;
  for (const Map& value : values) names.push_back(utils::text_form(value));
  return utils::join(names, ", ");
}

std::string keys_of(const Map& object) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : object.items()) keys.push_back(key);
  return utils::join(keys, ", ");
}

bool has_type(const Map& value, const std::string& type) {
  if (type == "string") return value.is_string();
  if (type == "integer") return value.is_number_integer();
  return value.is_boolean();
}

bool within(const Map& schema, const Map& number) {
  return (!schema.contains("minimum") || number >= schema.at("minimum")) &&
         (!schema.contains("maximum") || number <= schema.at("maximum"));
}

// What `schema` asks of a value: "a string", "an integer from 1 to 200", "one of missing, stale, ok".
std::string wanted(const Map& schema) {
  if (schema.contains("enum")) return "one of " + names_of(schema.at("enum"));
  const std::string type = utils::string_member(schema, "type");
  if (type == "string") return schema.contains("minLength") ? "a string that is not empty" : "a string";
  if (type == "boolean") return "true or false";
  std::string text = "an integer";
  if (schema.contains("minimum")) text += " from " + utils::text_form(schema.at("minimum"));
  if (schema.contains("maximum")) text += " to " + utils::text_form(schema.at("maximum"));
  return text;
}

bool fits(const Map& schema, const Map& value) {
  if (!has_type(value, utils::string_member(schema, "type"))) return false;
  if (value.is_number() && !within(schema, value)) return false;
  if (schema.contains("minLength") && value.get_ref<const std::string&>().empty()) return false;
  const Map& allowed = utils::member(schema, "enum");
  return allowed.is_null() || std::find(allowed.begin(), allowed.end(), value) != allowed.end();
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
  static const Map empty = Map::object();
  const Map& value = utils::member(params, key);
  if (value.is_null()) return empty;
  if (!value.is_object()) refuse(key, "an object");
  return value;
}

const Map& required_object(const Map& params, const char* key) {
  if (!utils::member(params, key).is_object()) refuse(key, "an object");
  return params.at(key);
}

std::optional<std::string> misfit(const Map& schema, const Map& arguments) {
  const Map& properties = schema.at("properties");
  for (const auto& [key, value] : arguments.items()) {
    const Map& property = utils::member(properties, key);
    if (property.is_null()) {
      return "there is no argument '" + key + "'; there " +
             (properties.empty() ? "are none" : "are: " + keys_of(properties));
    }
    if (!fits(property, value)) return "the argument '" + key + "' must be " + wanted(property);
  }
  for (const Map& name : utils::member(schema, "required")) {
    const auto& key = name.get_ref<const std::string&>();
    if (!arguments.contains(key)) return "the argument '" + key + "' is missing";
  }
  return std::nullopt;
}

}  // namespace ossilar::mcp
