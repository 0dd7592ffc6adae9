// How many source files the stored pages rest on. The publication of a save (orchestrator.cc) asks for it, as
// the pipeline's result has a field for the number.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "ossilar/store/repository.h"

namespace ossilar::workers::wiki {

// Counts at the cost of the rows that differ from those of the previous call; a save changes one row.
//
// Thread-safety: none; it belongs to the holder of the write lock, see Wiki::covered_files().
class CoveredFiles {
 public:
  // The number of different source files of all `rows`.
  std::int64_t count(const store::StoredRows& rows);

 private:
  store::StoredRows rows_;               // of the previous call
  std::map<std::string, int> pages_of_;  // file to the number of pages that rest on it
};

}  // namespace ossilar::workers::wiki
