// Inserts a member into JSON text that a person wrote, and keeps their layout. client_setup.cc calls it.
//
// Thread-safety: no state, any thread may call.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ossilar/utils/json.h"

namespace ossilar::cli {

// `text` with `key` added as the last member of the object under `parent`, or of the whole when `parent` is
// "". The member is indented as the rest is. No other byte changes, except that a closing brace which shares
// a line with the member before it gets a line of its own. None when there is no such object. Linear in
// `text`.
//
// `text` must be a JSON object, which is not checked, and `parent` is compared with keys as they are written,
// escapes and all: the caller parses the result and compares it with what it wanted.
std::optional<std::string> insert_member(const std::string& text, std::string_view parent,
                                         std::string_view key, const Map& value);

}  // namespace ossilar::cli
