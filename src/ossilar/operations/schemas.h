// Pieces of JSON Schema (2020-12), with which the operations of this folder describe their arguments and
// documents. A session gets them as they are (mcp/tools.cc), the shell makes its help from them (cli/app.cc).
//
// Thread-safety: no state, any thread may call. None fails. Every `description` is text for an agent or a
// user.
#pragma once

#include <string>

#include "ossilar/utils/json.h"

namespace ossilar::operations::schema {

inline Map text(const char* description) { return {{"type", "string"}, {"description", description}}; }

// A string that is not empty. misfit() reads any `minLength` as this one.
inline Map needed_text(const char* description) {
  return {{"type", "string"}, {"minLength", 1}, {"description", description}};
}

// One of `values`, a list of strings.
inline Map choice(const Map& values, const char* description) {
  return {{"type", "string"}, {"enum", values}, {"description", description}};
}

// An integer from `least` to `most`; the operation takes `otherwise` where none is given.
inline Map number(int least, int most, int otherwise, const char* description) {
  return {{"type", "integer"},
          {"minimum", least},
          {"maximum", most},
          {"default", otherwise},
          {"description", description}};
}

inline Map flag(const std::string& description) {
  return {{"type", "boolean"}, {"description", description}};
}

// How many there are, in a document.
inline Map count(const char* description) {
  return {{"type", "integer"}, {"minimum", 0}, {"description", description}};
}

inline Map list(const Map& item, const char* description) {
  return {{"type", "array"}, {"items", item}, {"description", description}};
}

inline Map strings(const char* description) { return list(Map{{"type", "string"}}, description); }

// An object of these properties, of which `required` names those that are always there.
inline Map object(const Map& properties, const Map& required = Map::array()) {
  Map made{{"type", "object"}, {"properties", properties}};
  if (!required.empty()) made["required"] = required;
  return made;
}

// The input of a tool: nothing but these arguments, so that a client can tell a misspelled one before it
// calls.
inline Map arguments(const Map& properties, const Map& required = Map::array()) {
  Map made = object(properties, required);
  made["additionalProperties"] = false;
  return made;
}

}  // namespace ossilar::operations::schema
