// Counts by differences, because going through all rows would make each save cost the whole wiki. A set of
// files would not do: when a page drops a file, only the number of pages that still rest on it says whether
// the file is out. Invariant: pages_of_ is what the rows in rows_ add up to, without zeros.
#include "ossilar/workers/wiki/host/covered_files.h"

namespace ossilar::workers::wiki {

std::int64_t CoveredFiles::count(const store::StoredRows& rows) {
  const auto add = [this](const Map* row, int pages) {
    if (row == nullptr) return;
    for (const Map& file : utils::json_member(*row, "source_files")) {
      const std::string path = utils::text_form(file);
      if ((pages_of_[path] += pages) == 0) pages_of_.erase(path);
    }
  };
  for_each_difference(rows_, rows, [&](const std::string&, const Map* before, const Map* after) {
    add(before, -1);  // null for a page that is new, as `after` is for one that is gone
    add(after, 1);
  });
  rows_ = rows;
  return static_cast<std::int64_t>(pages_of_.size());
}

}  // namespace ossilar::workers::wiki
