// Decoding what a client sends: fields of a request's params, and arguments of a tool.
#pragma once

#include <optional>
#include <string>

#include "ossilar/utils/json.h"

namespace ossilar::mcp {

// The field of a request's params. Throws ProtocolError (invalid params) when it is missing or of another
// type.
std::string required_string(const Map& params, const char* key);
const Map& required_object(const Map& params, const char* key);
// The same for one that may be missing: null, or an empty object.
std::optional<std::string> optional_string(const Map& params, const char* key);
const Map& optional_object(const Map& params, const char* key);

// What is wrong with `arguments` by `schema`, an object's JSON Schema, in words for whoever sent them; none
// when they fit. Of JSON Schema it knows what the tools' input schemas use: `properties` with `type` string,
// integer or boolean, `enum`, `minimum`, `maximum`, `minLength`; `required`; nothing else may be given.
std::optional<std::string> misfit(const Map& schema, const Map& arguments);

}  // namespace ossilar::mcp
