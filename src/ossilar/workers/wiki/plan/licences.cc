#include "ossilar/workers/wiki/plan/licences.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

#include "ossilar/workers/wiki/plan/file_roles.h"
#include "ossilar/workers/wiki/plan/import_resolver.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;

constexpr std::ptrdiff_t kLeastRest = 10;  // the repository has ten times as many files as bundled code in it

bool lies_below(std::string_view path, std::string_view folder) {
  return folder.empty() ||
         (path.starts_with(folder) && path.size() > folder.size() && path[folder.size()] == '/');
}

// Files below `folder`, which are a range of the index.
using IndexFiles = std::vector<std::shared_ptr<const SourceFile>>;
std::pair<IndexFiles::const_iterator, IndexFiles::const_iterator> range_below(const IndexFiles& files,
                                                                              const std::string& folder) {
  const auto before = [](const auto& file, const std::string& path) { return file->path < path; };
  // '0' is the character after '/'.
  return {std::lower_bound(files.begin(), files.end(), folder + "/", before),
          std::lower_bound(files.begin(), files.end(), folder + "0", before)};
}

bool is_small(const std::string& folder, const source::SourceIndex& index) {
  const auto [first, last] = range_below(index.files(), folder);
  return (last - first) * kLeastRest <= static_cast<std::ptrdiff_t>(index.files().size());
}

bool stands_alone(const std::string& folder, const source::SourceIndex& index,
                  const ImportResolver& resolver) {
  const auto [first, last] = range_below(index.files(), folder);
  return std::all_of(first, last, [&](const auto& file) {
    const std::vector<std::string> imports = file->imports.all();
    return std::all_of(imports.begin(), imports.end(), [&](const std::string& import) {
      const std::string_view target = resolver.resolve(*file, import);
      return target.empty() || lies_below(target, folder);
    });
  });
}

// Whether at least half of the folders beside `folder`, itself among them, are in `licensed`.
bool is_one_of_many(const std::string& folder, const std::set<std::string>& licensed,
                    const source::SourceIndex& index) {
  const std::string parent(folder_of(folder));
  const auto [first, last] = parent.empty() ? std::pair(index.files().begin(), index.files().end())
                                            : range_below(index.files(), parent);
  const std::size_t start = parent.empty() ? 0 : parent.size() + 1;
  std::set<std::string> siblings;
  for (auto file = first; file != last; ++file) {
    const std::size_t end = (*file)->path.find('/', start);
    if (end != std::string::npos) siblings.insert((*file)->path.substr(0, end));
  }
  const auto with_licence = std::count_if(siblings.begin(), siblings.end(),
                                          [&](const std::string& s) { return licensed.count(s) > 0; });
  return with_licence > 1 && 2 * static_cast<std::size_t>(with_licence) >= siblings.size();
}

}  // namespace

std::unordered_set<std::string> folders_licensed_apart(const source::SourceIndex& index) {
  std::vector<const SourceFile*> ours, others;
  std::set<std::string> licensed;
  for (const auto& file : index.files()) {
    if (file->kind != source::FileKind::text || !is_licence(file->path)) continue;
    (folder_of(file->path).empty() ? ours : others).push_back(file.get());
    licensed.emplace(folder_of(file->path));
  }
  const auto is_ours = [&](const SourceFile& licence) {
    return std::any_of(ours.begin(), ours.end(), [&](auto o) { return o->sha256 == licence.sha256; });
  };
  std::unordered_set<std::string> apart;
  std::optional<ImportResolver> resolver;  // made when it is needed, which is seldom
  if (ours.empty()) return apart;          // then these may say what the whole is under
  for (const SourceFile* licence : others) {
    const std::string folder(folder_of(licence->path));
    const bool is_upkeep = is_upkeep_folder(folder.substr(0, folder.find('/')));
    if (is_ours(*licence) || is_upkeep || !is_small(folder, index) || is_one_of_many(folder, licensed, index))
      continue;
    if (!resolver) resolver.emplace(index);
    if (stands_alone(folder, index, *resolver)) apart.insert(folder);
  }
  return apart;
}

}  // namespace ossilar::workers::wiki
