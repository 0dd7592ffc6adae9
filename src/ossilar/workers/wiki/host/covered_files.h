// How many source files the stored pages rest on.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "ossilar/store/repository.h"

namespace ossilar::workers::wiki {

// Counts at the cost of the rows that differ from those of the last time: a save changes one of thousands.
//
// Thread-safety: none; it belongs to the holder of the write lock.
class CoveredFiles {
 public:
  std::int64_t count(const store::StoredRows& rows);

 private:
  store::StoredRows rows_;
  std::map<std::string, int> pages_of_;  // file to the number of pages that rest on it
};

}  // namespace ossilar::workers::wiki
