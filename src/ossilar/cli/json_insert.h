// Enters a member into JSON text that somebody else wrote, whose layout is theirs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ossilar/utils/json.h"

namespace ossilar::cli {

// `text`, a JSON object, with `key` as the last member of the object under `parent` in it, or of the whole
// when `parent` is "". The member is indented as the rest is; no other byte changes. None when that object is
// not there; `parent` is compared with keys as they are written, escapes and all. Linear in `text`.
std::optional<std::string> insert_member(const std::string& text, std::string_view parent,
                                         std::string_view key, const Map& value);

}  // namespace ossilar::cli
