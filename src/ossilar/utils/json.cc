#include "ossilar/utils/json.h"

#include "ossilar/utils/error.h"
#include "ossilar/utils/text.h"

namespace ossilar::utils {
namespace {

void append_json(std::string& out, const Map& value);

void append_object(std::string& out, const Map& object) {
  const char* separator = "";
  out += '{';
  for (const auto& [key, value] : object.items()) {
    out += separator;
    out += Map(key).dump();
    out += ": ";
    append_json(out, value);
    separator = ", ";
  }
  out += '}';
}

void append_array(std::string& out, const Map& array) {
  const char* separator = "";
  out += '[';
  for (const Map& value : array) {
    out += separator;
    append_json(out, value);
    separator = ", ";
  }
  out += ']';
}

// Recursion is bounded: values are made by this program or by parse_json().
void append_json(std::string& out, const Map& value) {
  if (value.is_object()) {
    append_object(out, value);
  } else if (value.is_array()) {
    append_array(out, value);
  } else {
    out += value.dump();
  }
}

// The parser's own words without its number and position. They quote what was read, which may be all of a
// long text.
std::string reason_of(const Map::exception& error) {
  constexpr std::size_t kLongest = 120;
  const std::string_view words = error.what();
  const std::size_t position = words.find(": ");
  const std::string_view reason = words.substr(position == words.npos ? 0 : position + 2);
  std::string shown = valid_utf8(utf8_prefix(reason, kLongest));
  return shown.size() < reason.size() ? shown + "..." : shown;
}

}  // namespace

bool truthy(const Map& value) {
  switch (value.type()) {
    case Map::value_t::null:
    case Map::value_t::discarded:
      return false;
    case Map::value_t::boolean:
      return value.get<bool>();
    case Map::value_t::number_integer:
    case Map::value_t::number_unsigned:
    case Map::value_t::number_float:
      return value.get<double>() != 0.0;
    case Map::value_t::string:
      return !value.get_ref<const std::string&>().empty();
    case Map::value_t::binary:
      return !value.get_binary().empty();
    case Map::value_t::array:
    case Map::value_t::object:
      return !value.empty();
  }
  return false;
}

std::string text_form(const Map& value) {
  return value.is_string() ? value.get<std::string>() : json_text(value);
}

std::string json_text(const Map& value) {
  std::string out;
  append_json(out, value);
  return out;
}

const Map& member(const Map& object, std::string_view key) {
  static const Map null;
  if (!object.is_object()) return null;
  const auto found = object.find(key);
  return found == object.end() ? null : *found;
}

std::string string_member(const Map& object, std::string_view key) {
  const Map& value = member(object, key);
  return value.is_string() ? value.get<std::string>() : std::string();
}

Map parse_json(std::string_view text, std::string_view what) {
  const auto bounded = [&](int depth, Map::parse_event_t event, Map&) {
    const bool opens = event == Map::parse_event_t::object_start || event == Map::parse_event_t::array_start;
    if (opens && depth >= static_cast<int>(kMaxJsonDepth)) {
      throw Error(std::string(what) + ": JSON nested deeper than " + std::to_string(kMaxJsonDepth));
    }
    return true;
  };
  try {
    return Map::parse(text, bounded);
  } catch (const Map::parse_error& error) {
    throw Error(std::string(what) + ": not JSON at byte " + std::to_string(error.byte) + ": " +
                reason_of(error));
  } catch (const Map::exception& error) {  // a number beyond every range
    throw Error(std::string(what) + ": not JSON: " + reason_of(error));
  }
}

}  // namespace ossilar::utils
