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
    add(before, -1);
    add(after, 1);
  });
  rows_ = rows;
  return static_cast<std::int64_t>(pages_of_.size());
}

}  // namespace ossilar::workers::wiki
