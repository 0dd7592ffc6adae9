#include "ossilar/source/source_index.h"

#include <algorithm>
#include <utility>

namespace ossilar::source {
namespace {

std::string_view last_part(std::string_view path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

SourceIndex::SourceIndex(std::vector<std::shared_ptr<const SourceFile>> files) : files_(std::move(files)) {
  std::sort(files_.begin(), files_.end(), [](const auto& a, const auto& b) { return a->path < b->path; });
  for (const auto& file : files_) by_name_.emplace(last_part(file->path), file.get());
}

const SourceFile* SourceIndex::find(std::string_view path) const {
  const auto found = std::lower_bound(files_.begin(), files_.end(), path,
                                      [](const auto& file, std::string_view p) { return file->path < p; });
  return found != files_.end() && (*found)->path == path ? found->get() : nullptr;
}

std::vector<std::string> SourceIndex::named(std::string_view name) const {
  std::vector<std::string> paths;
  const auto [first, last] = by_name_.equal_range(name);
  std::transform(first, last, std::back_inserter(paths),
                 [](const auto& entry) { return entry.second->path; });
  return paths;
}

}  // namespace ossilar::source
