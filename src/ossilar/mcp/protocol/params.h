// Fields of a request's params, checked for presence and type. Used by session.cc and by all that answers a
// request; a tool's arguments are checked by the operation that it calls (operations/operation.h).
//
// Thread-safety: no state is kept, so any thread may call these.
#pragma once

#include <optional>
#include <string>

#include "ossilar/utils/json.h"

namespace ossilar::mcp {

// The field `key` of `params`. Throws ProtocolError (invalid params), which names the field, when it is
// missing, null or of another type. The reference points into `params`.
std::string required_string(const Map& params, const char* key);
const Map& required_object(const Map& params, const char* key);
// The same for a field that may be missing or null: then none, or an empty object that lives as long as the
// program. Throws for another type all the same.
std::optional<std::string> optional_string(const Map& params, const char* key);
const Map& optional_object(const Map& params, const char* key);

}  // namespace ossilar::mcp
