#include "ossilar/workers/wiki/plan/gathered.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "ossilar/workers/wiki/plan/file_roles.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;
using Files = std::vector<const SourceFile*>;

constexpr std::size_t kMostFiles = 200;
// Some 6,000 lines. The first file is there in any case.
constexpr std::int64_t kMostWeight = 7200;

std::ptrdiff_t depth_of(const SourceFile* file) {
  return std::count(file->path.begin(), file->path.end(), '/');
}

// As many of `files` as fit. One that is too large leaves room for those after it; if all are, the first is
// better than none.
Gathered as_many_as_fit(const Files& files) {
  Gathered out;
  std::int64_t weight = 0;
  for (const SourceFile* file : files) {
    const std::int64_t more = file->lines + kFileWeight;
    const bool fits = weight + more <= kMostWeight && out.files.size() < kMostFiles;
    if (fits) {
      weight += more;
      out.files.push_back(file);
    }
    out.is_cut |= !fits;
  }
  if (out.files.empty() && !files.empty()) out.files.push_back(files.front());
  return out;
}

// What says most of a project: README, licence, how it is built, where it begins. Of each one file, the first
// or, of those where it begins, the largest of the best rank.
int tells(const SourceFile& file) {
  constexpr int kReadme = 0, kLicence = 1, kManifest = 2, kCode = 3, kNothing = 4;
  if (file.kind != source::FileKind::text) return kNothing;
  if (is_readme(file.path)) return kReadme;
  if (is_licence(file.path)) return kLicence;
  const FileRole role = file_role(file);
  return role == FileRole::manifest ? kManifest : role == FileRole::code ? kCode : kNothing;
}

// The files directly in `folder`.
Files files_in(const std::string& folder, const source::SourceIndex& index) {
  const std::string start = folder + "/";
  const auto& all = index.files();
  auto file = std::lower_bound(all.begin(), all.end(), start,
                               [](const auto& f, const std::string& path) { return f->path < path; });
  Files out;
  for (; file != all.end() && (*file)->path.starts_with(start); ++file) {
    if ((*file)->path.find('/', start.size()) == std::string::npos) out.push_back(file->get());
  }
  return out;
}

Files telling_files(const std::string& project, const source::SourceIndex& index) {
  using Rank = std::tuple<int, std::int64_t>;
  std::map<int, std::pair<Rank, const SourceFile*>> best;
  for (const SourceFile* file : files_in(project, index)) {
    const int kind = tells(*file);
    if (kind > 3) continue;
    const Rank rank = kind == 3 ? Rank(entry_rank(*file), -file->lines) : Rank(0, 0);
    const auto [found, is_new] = best.try_emplace(kind, rank, file);
    if (!is_new && rank < found->second.first) found->second = {rank, file};
  }
  Files out;
  for (const auto& [kind, found] : best) out.push_back(found.second);
  return out;
}

// The folders of the projects in `folder`: those in it, or itself if there is code in it directly.
std::vector<std::string> projects_in(const FolderTree& tree, std::size_t folder) {
  const auto& files = tree[folder].files;
  const bool has_code = std::any_of(
      files.begin(), files.end(), [&](const SourceFile* file) { return tree.role(*file) == FileRole::code; });
  if (has_code || tree[folder].children.empty()) return {tree[folder].path};
  std::vector<std::string> out;
  for (const std::size_t child : tree[folder].children) out.push_back(tree[child].path);
  return out;
}

}  // namespace

Gathered gathered(Files files) {
  std::map<std::string_view, std::size_t> seen;  // of each folder, so far
  std::vector<std::tuple<std::size_t, std::ptrdiff_t, std::size_t>> ranked;
  for (std::size_t i = 0; i < files.size(); ++i) {
    // The marker of a package shows nothing.
    const bool is_empty = files[i]->lines < kEmptyLines;
    ranked.emplace_back(is_empty ? files.size() : seen[folder_of(files[i]->path)]++, depth_of(files[i]), i);
  }
  std::sort(ranked.begin(), ranked.end());
  Files ordered;
  ordered.reserve(files.size());
  for (const auto& [turn, depth, i] : ranked) ordered.push_back(files[i]);
  return as_many_as_fit(ordered);
}

BundledCode bundled_code(const FolderTree& tree, const std::vector<std::size_t>& folders, const Files& files,
                         const source::SourceIndex& index) {
  BundledCode out;
  Files shown;
  for (const std::size_t folder : folders) {
    for (const std::string& project : projects_in(tree, folder)) {
      const Files telling = telling_files(project, index);
      if (!telling.empty()) out.projects.emplace_back(file_name(project));
      shown.insert(shown.end(), telling.begin(), telling.end());
    }
  }
  for (const SourceFile* file : files) {
    out.projects.emplace_back(file_name(file->path));
    shown.push_back(file);
  }
  out.shown = as_many_as_fit(shown);
  return out;
}

}  // namespace ossilar::workers::wiki
