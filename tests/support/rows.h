// Tables of cases in tests/data: each line that begins with "[" is a row, a JSON array; the others are
// remarks.
#pragma once

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ossilar/utils/json.h"

namespace ossilar::testing {

inline std::vector<Map> rows_of(const std::string& table) {
  std::ifstream file(OSSILAR_TEST_DATA "/" + table);
  std::vector<Map> rows;
  for (std::string line; std::getline(file, line);) {
    if (line.substr(0, 1) == "[") rows.push_back(Map::parse(line));
  }
  if (rows.empty()) throw std::runtime_error("no rows in " + table);
  return rows;
}

}  // namespace ossilar::testing
