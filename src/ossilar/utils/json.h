// Loosely typed data, for rows, answers, citations, chunks and digests, and its JSON text.
//
// Used by every room. Lines of a session, manifests and the answers of an embedding service, which may be
// hostile, are read by parse_json(); rows, manifests and answers are written by json_text().
//
// Thread-safety: every function may be called from any thread, also on one value that no thread changes.
//
// Failure: Error for a text that is not accepted; the functions that read members never fail.
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

// Deeper nesting is refused. No data of ours comes near it; it bounds the memory that a hostile text takes,
// and the recursion of json_text().
inline constexpr std::size_t kMaxJsonDepth = 64;

// False for null, false, zero and an empty string, list, object or binary; true for everything else.
bool truthy(const Map& value);

// A string without quotes and escapes; any other value as json_text() writes it.
std::string text_form(const Map& value);

// `value` on one line: ", " between members, ": " after keys, keys in their order. Characters outside ASCII
// are written as they are; only '"', '\' and characters below U+0020 are escaped. `value` is nested no deeper
// than kMaxJsonDepth, as the writing recurses. Throws nlohmann::json::type_error for a string or key that is
// not UTF-8.
std::string json_text(const Map& value);

// The value under `key`, or null when `object` is no object or has no such key. The reference is valid as
// long as `object` is neither changed nor destroyed.
const Map& member(const Map& object, std::string_view key);

// The string under `key`, or "" when it is missing or no string.
std::string string_member(const Map& object, std::string_view key);

// Parses the JSON text that is the string under `key`; null when there is no such string. Throws what
// parse_json() throws. (Rows hold lists and maps as JSON text.)
Map json_member(const Map& object, std::string_view key);

// Parses `text` in linear time; of a key that comes twice the later value counts. Throws Error, which names
// `what`, for malformed JSON, with the byte, and for nesting over kMaxJsonDepth.
Map parse_json(std::string_view text, std::string_view what);

}  // namespace ossilar::utils
