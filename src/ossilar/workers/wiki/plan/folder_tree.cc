#include "ossilar/workers/wiki/plan/folder_tree.h"

#include <algorithm>
#include <iterator>

namespace ossilar::workers::wiki {

using source::SourceFile;

FolderTree::FolderTree(const source::SourceIndex& index) {
  roles_.reserve(index.files().size());
  for (const auto& file : index.files()) roles_.emplace(file.get(), file_role(*file));
  for (const Reading reading : {Reading::code, Reading::code_anywhere, Reading::all_text}) {
    reading_ = reading;
    build(index);
    if (root().weight > 0) return;
  }
}

std::int64_t FolderTree::weight(const SourceFile& file, FolderRole folder) const {
  const bool counts = [&] {
    switch (role(file)) {
      case FileRole::code:
        return true;
      case FileRole::test:
        return folder != FolderRole::ordinary || reading_ == Reading::code_anywhere;
      case FileRole::prose:  // the README at the root is the overview's
        return folder == FolderRole::docs ||
               (reading_ == Reading::all_text && !(is_readme(file.path) && folder_of(file.path).empty()));
      case FileRole::other:
        return reading_ == Reading::all_text && lists(file);
      default:
        return false;
    }
  }();
  return counts && file.lines >= kEmptyLines ? file.lines + kFileWeight : 0;
}

bool FolderTree::lists(const SourceFile& file) const {
  if (file.kind != source::FileKind::text) return false;
  return role(file) != FileRole::other || (reading_ == Reading::all_text && !file.language.empty());
}

void FolderTree::build(const source::SourceIndex& index) {
  folders_.assign(1, Folder{});
  std::vector<std::size_t> open{0};
  for (const auto& file : index.files()) {
    if (!lists(*file)) continue;
    enter(open, folder_of(file->path), index);
    folders_[open.back()].files.push_back(file.get());
  }
  for (const std::size_t folder : open) folders_[folder].end = folders_.size();
  for (Folder& folder : folders_) move_namesakes(folder);
  weigh();
}

// Leaves and enters folders until `folder` is the innermost open one. In the order of their bytes all paths
// below a folder stand together, so a folder is entered once.
void FolderTree::enter(std::vector<std::size_t>& open, std::string_view folder,
                       const source::SourceIndex& index) {
  const auto holds = [&](const std::string& path) {
    return path.empty() || (folder.substr(0, path.size()) == path &&
                            (folder.size() == path.size() || folder[path.size()] == '/'));
  };
  while (!holds(folders_[open.back()].path)) {
    folders_[open.back()].end = folders_.size();
    open.pop_back();
  }
  while (folders_[open.back()].path.size() < folder.size()) {
    const std::size_t parent = open.back();
    const std::size_t start = folders_[parent].path.empty() ? 0 : folders_[parent].path.size() + 1;
    const std::size_t stop = std::min(folder.find('/', start), folder.size());
    Folder child;
    child.path = folder.substr(0, stop);
    child.parent = parent;
    child.role = folders_[parent].role;
    if (child.ordinary() && reading_ == Reading::code) {
      child.role = folder_role(child.path, index);
    }
    open.push_back(folders_.size());
    folders_[parent].children.push_back(folders_.size());
    folders_.push_back(std::move(child));
  }
}

void FolderTree::move_namesakes(Folder& folder) {
  std::unordered_map<std::string_view, std::size_t> child_by_name;
  for (const std::size_t child : folder.children) {
    if (folders_[child].ordinary()) child_by_name.emplace(file_name(folders_[child].path), child);
  }
  if (child_by_name.empty()) return;
  const auto moves =
      std::stable_partition(folder.files.begin(), folder.files.end(), [&](const SourceFile* file) {
        return role(*file) != FileRole::code || child_by_name.count(file_stem(file->path)) == 0;
      });
  std::for_each(moves, folder.files.end(), [&](const SourceFile* file) {
    folders_[child_by_name.at(file_stem(file->path))].files.push_back(file);
  });
  folder.files.erase(moves, folder.files.end());
}

void FolderTree::weigh() {
  for (std::size_t i = folders_.size(); i-- > 0;) {
    Folder& folder = folders_[i];
    for (const SourceFile* file : folder.files) folder.weight += weight(*file, folder.role);
    Folder& parent = folders_[folder.parent];
    if (i > 0 && folder.ordinary() == parent.ordinary()) parent.weight += folder.weight;
  }
}

}  // namespace ossilar::workers::wiki
