// Loosely typed data: rows, answers, citations, chunks, digests.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace ossilar {

// A JSON value whose objects keep the order in which their keys were inserted.
using Map = nlohmann::ordered_json;

}  // namespace ossilar

namespace ossilar::utils {

// Nesting beyond this is refused: no data of ours comes near it, and a parser's memory grows with it.
inline constexpr std::size_t kMaxJsonDepth = 64;

// False for null, false, zero, and an empty string, list, object or binary; true for everything else.
bool truthy(const Map& value);

// A string as it is; any other value as json_text() writes it.
std::string text_form(const Map& value);

// `value` on one line, members separated by ", " and keys from values by ": ", keys in their order. Non-ASCII
// characters stand as themselves; only '"', '\' and characters below U+0020 are escaped.
// Throws nlohmann::json::type_error for a string or key that is not UTF-8.
std::string json_text(const Map& value);

// The value under `key`, or null when `object` is not an object or has no such key. The reference is valid as
// long as `object` is.
const Map& member(const Map& object, std::string_view key);

// The string under `key`, or "" when it is missing or no string.
std::string string_member(const Map& object, std::string_view key);

// The value of the JSON text that is the string under `key`, or null when there is no such text. Throws what
// parse_json() throws.
Map json_member(const Map& object, std::string_view key);

// Parses `text`. Throws Error, naming `what` and the byte, for malformed JSON or nesting over kMaxJsonDepth.
Map parse_json(std::string_view text, std::string_view what);

}  // namespace ossilar::utils
