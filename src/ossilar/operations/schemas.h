// Pieces of JSON Schema (2020-12), of which the operations describe their arguments and documents.
#pragma once

#include <string>

#include "ossilar/utils/json.h"

namespace ossilar::operations::schema {

inline Map text(const char* description) { return {{"type", "string"}, {"description", description}}; }

inline Map needed_text(const char* description) {
  return {{"type", "string"}, {"minLength", 1}, {"description", description}};
}

inline Map choice(const Map& values, const char* description) {
  return {{"type", "string"}, {"enum", values}, {"description", description}};
}

inline Map number(int least, int most, int otherwise, const char* description) {
  return {{"type", "integer"},
          {"minimum", least},
          {"maximum", most},
          {"default", otherwise},
          {"description", description}};
}

inline Map flag(const char* description) { return {{"type", "boolean"}, {"description", description}}; }

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

// The input of a tool: nothing but these arguments.
inline Map arguments(const Map& properties, const Map& required = Map::array()) {
  Map made = object(properties, required);
  made["additionalProperties"] = false;
  return made;
}

}  // namespace ossilar::operations::schema
