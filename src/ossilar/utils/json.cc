// Parsing uses the library's parser with a builder of our own. The library's builder could limit the depth by
// a callback, but takes quadratic time then: it compares each new key with all keys of the object, and scans
// a container after each object in it. A manifest of 50,000 entries took minutes. Our builder keeps an index
// of the keys once an object has many.
//
// Writing gives the same characters as the library's dump(), with blanks after ',' and ':'. dump() itself
// allocates for every value it is called on and decodes text byte by byte; here runs of plain characters are
// appended whole, and dump() is asked only for what is rare. Tests compare the two for each ASCII character.

#include "ossilar/utils/json.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ossilar/utils/error.h"
#include "ossilar/utils/text.h"

namespace ossilar::utils {
namespace {

void append_json(std::string& out, const Map& value);

// Whether the library writes this byte of valid UTF-8 as it is.
bool is_verbatim(char c) { return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\'; }

// Appends what the library writes for `text`.
void append_text(std::string& out, const std::string& text) {
  const bool ascii = std::all_of(text.begin(), text.end(), [](char c) { return (c & '\x80') == 0; });
  if (!ascii && first_invalid_utf8(text)) {
    out += Map(text).dump();  // throws type_error, which names the byte
    return;
  }
  out += '"';
  for (auto at = text.begin(); at != text.end();) {
    const auto end = std::find_if_not(at, text.end(), is_verbatim);
    out.append(at, end);
    if ((at = end) == text.end()) break;
    if (*at == '\n') {
      out += "\\n";
    } else if (*at == '"' || *at == '\\') {
      out += {'\\', *at};
    } else {  // a control character: its escape without the quotes around it
      const std::string written = Map(std::string(1, *at)).dump();
      out.append(written, 1, written.size() - 2);
    }
    ++at;
  }
  out += '"';
}

void append_scalar(std::string& out, const Map& value) {
  if (value.is_string()) {
    append_text(out, value.get_ref<const std::string&>());
  } else if (value.is_number_unsigned()) {
    out += std::to_string(value.get<std::uint64_t>());
  } else if (value.is_number_integer()) {
    out += std::to_string(value.get<std::int64_t>());
  } else {
    out += value.dump();
  }
}

void append_object(std::string& out, const Map& object) {
  const char* separator = "";
  out += '{';
  for (const auto& [key, value] : object.items()) {
    out += separator;
    append_text(out, key);
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

// The recursion is bounded: values come from this program, which nests little, or from parse_json(), which
// refuses depth.
void append_json(std::string& out, const Map& value) {
  if (value.is_object()) {
    append_object(out, value);
  } else if (value.is_array()) {
    append_array(out, value);
  } else {
    append_scalar(out, value);
  }
}

// The parser's message without its number and position, cut short: it quotes the token that it was reading,
// which may be all of a long text.
std::string reason_of(const nlohmann::detail::exception& error) {
  constexpr std::size_t kLongest = 120;  // bytes: the reason and some of the quote, on about one line
  const std::string_view words = error.what();
  const std::size_t position = words.find(": ");
  const std::string_view reason = words.substr(position == words.npos ? 0 : position + 2);
  std::string shown = valid_utf8(utf8_prefix(reason, kLongest));
  return shown.size() < reason.size() ? shown + "..." : shown;
}

// Builds a value from the parser's events, which it gets in the order of the text. Used for one text.
class Builder final : public nlohmann::json_sax<Map> {
 public:
  explicit Builder(std::string_view what) : what_(what) {}
  Map take() { return std::move(root_); }

  bool null() override { return put(nullptr) != nullptr; }
  bool boolean(bool value) override { return put(value) != nullptr; }
  bool number_integer(number_integer_t value) override { return put(value) != nullptr; }
  bool number_unsigned(number_unsigned_t value) override { return put(value) != nullptr; }
  bool number_float(number_float_t value, const string_t& /*text*/) override { return put(value) != nullptr; }
  bool string(string_t& value) override { return put(std::move(value)) != nullptr; }
  bool binary(binary_t& value) override { return put(std::move(value)) != nullptr; }
  bool start_object(std::size_t /*size*/) override { return open(Map::object()); }
  bool start_array(std::size_t /*size*/) override { return open(Map::array()); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }
  bool key(string_t& name) override {
    key_ = std::move(name);
    return true;
  }
  bool parse_error(std::size_t position, const std::string& /*token*/,
                   const nlohmann::detail::exception& error) override {
    throw Error(std::string(what_) + ": not JSON at byte " + std::to_string(position) + ": " +
                reason_of(error));
  }

 private:
  // A list or an object that is open. Its address stays valid until it is closed: only a further element of
  // its parent could move it.
  struct Level {
    Map* container;
    std::unordered_map<std::string, std::size_t> places;  // of the members by key, once there are kFewMembers
  };
  // So few keys are compared one by one, without the memory and the hashing that an index costs.
  static constexpr std::size_t kFewMembers = 16;

  bool open(Map container) {
    if (levels_.size() >= kMaxJsonDepth) {
      throw Error(std::string(what_) + ": JSON nested deeper than " + std::to_string(kMaxJsonDepth));
    }
    levels_.push_back({put(std::move(container)), {}});
    return true;
  }

  bool close() {
    levels_.pop_back();
    return true;
  }

  // Adds a value to the innermost open container, or makes it the root. The address is for open() and is
  // valid until the container gets its next element.
  Map* put(Map value) {
    if (levels_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    Level& level = levels_.back();
    if (level.container->is_object()) return put_member(level, std::move(value));
    level.container->push_back(std::move(value));
    return &level.container->back();
  }

  // A key that comes again keeps its place and gets the later value, as the library does it.
  Map* put_member(Level& level, Map value) {
    auto& members = level.container->get_ref<Map::object_t&>();
    const std::size_t place = place_of_key(level, members);
    const auto offset = static_cast<std::ptrdiff_t>(place);
    if (place < members.size()) {
      members.begin()[offset].second = std::move(value);
    } else {
      members.emplace_back(std::move(key_), std::move(value));
    }
    return &members.begin()[offset].second;
  }

  // The index of the member with the present key, or the number of members if it is new; then it is noted
  // under that index, where put_member() adds it.
  std::size_t place_of_key(Level& level, const Map::object_t& members) {
    if (members.size() < kFewMembers) {
      const auto found = std::find_if(members.begin(), members.end(),
                                      [&](const auto& member) { return member.first == key_; });
      return static_cast<std::size_t>(found - members.begin());
    }
    if (level.places.empty()) {
      for (const auto& member : members) level.places.emplace(member.first, level.places.size());
    }
    return level.places.emplace(key_, members.size()).first->second;
  }

  std::string_view what_;
  Map root_;
  std::string key_;
  std::vector<Level> levels_;
};

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
  static const Map null;  // what the reference of a missing member refers to
  if (!object.is_object()) return null;
  const auto found = object.find(key);
  return found == object.end() ? null : *found;
}

std::string string_member(const Map& object, std::string_view key) {
  const Map& value = member(object, key);
  return value.is_string() ? value.get<std::string>() : std::string();
}

Map json_member(const Map& object, std::string_view key) {
  const Map& text = member(object, key);
  return text.is_string() ? parse_json(text.get_ref<const std::string&>(), key) : Map();
}

Map parse_json(std::string_view text, std::string_view what) {
  Builder builder(what);
  Map::sax_parse(text, &builder);
  return builder.take();
}

}  // namespace ossilar::utils
