// One pass over the index in its order makes the folders in preorder, with a stack of those that are open. It
// works without recursion, as a path may have thousands of parts.
//
// A page needs something to be about even in an unusual repository: where all code lies below tests/ or
// examples/, or where there is no code. So the tree is read in up to three ways, and the first that gives it
// weight counts.
#include "ossilar/workers/wiki/plan/folder_tree.h"

#include <algorithm>
#include <iterator>

#include "ossilar/workers/wiki/plan/licences.h"

namespace ossilar::workers::wiki {

using source::SourceFile;

FolderTree::FolderTree(const source::SourceIndex& index) {
  take_roles(index);
  licensed_apart_ = folders_licensed_apart(index);
  // Built anew for each reading: it changes which files are listed and which folders have a role.
  for (const Reading reading : {Reading::code, Reading::code_anywhere, Reading::all_text}) {
    reading_ = reading;
    build(index);
    if (root().weight > 0) return;
  }
}

void FolderTree::take_roles(const source::SourceIndex& index) {
  roles_.reserve(index.files().size());
  std::vector<const SourceFile*> grammars;
  std::int64_t lines = 0;
  for (const auto& file : index.files()) {
    const FileRole role = file_role(*file);
    roles_.emplace(file.get(), role);
    if (role == FileRole::code) lines += file->lines;
    if (file->kind == source::FileKind::text && is_grammar(*file)) grammars.push_back(file.get());
    if (role == FileRole::bundled) bundled_files_.push_back(file.get());
  }
  for (const SourceFile* grammar : grammars) settle_generated(*grammar, index);
  settle_bundled(lines);
}

// parser.c and parser.h beside parser.y are made from it, so it is what there is to read.
void FolderTree::settle_generated(const SourceFile& grammar, const source::SourceIndex& index) {
  const std::string stem = grammar.path.substr(0, grammar.path.rfind('.'));
  for (const char* ending : {".c", ".h", ".cc", ".hh", ".cpp", ".hpp"}) {
    const SourceFile* made = index.find(stem + ending);
    if (made == nullptr) continue;
    roles_[made] = FileRole::other;
    roles_[&grammar] = FileRole::code;
  }
}

// Where such files are a third of the code or more, they are what the repository is about.
void FolderTree::settle_bundled(std::int64_t own_lines) {
  std::int64_t lines = 0;
  for (const SourceFile* file : bundled_files_) lines += file->lines;
  if (2 * lines < own_lines) return;
  for (const SourceFile* file : bundled_files_) roles_[file] = FileRole::code;
  bundled_files_.clear();
}

std::int64_t FolderTree::weight(const SourceFile& file, FolderRole folder) const {
  const bool counts = [&] {
    switch (role(file)) {
      case FileRole::code:
        return true;
      case FileRole::test:  // beside the code it goes along with it; in a folder of tests it is the subject
        return folder != FolderRole::ordinary || reading_ == Reading::code_anywhere;
      case FileRole::prose:  // the README at the root is the overview's
        return folder == FolderRole::docs ||
               (reading_ == Reading::all_text && !(is_readme(file.path) && folder_of(file.path).empty()));
      case FileRole::other:
        return reading_ == Reading::all_text && lists(file);
      default:  // a manifest says how the code is built, and is no subject of a page
        return false;
    }
  }();
  return counts && file.lines >= kEmptyLines ? file.lines + kFileWeight : 0;
}

// In a repository of documents or data the data is the subject; a language shows that its text is meant for
// reading.
bool FolderTree::lists(const SourceFile& file) const {
  if (file.kind != source::FileKind::text) return false;
  if (role(file) == FileRole::bundled) return false;
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
  // Those that enter() never left.
  for (const std::size_t folder : open) folders_[folder].end = folders_.size();
  for (Folder& folder : folders_) move_namesakes(folder);
  weigh();
}

// Leaves and enters folders until `folder` is the innermost open one. In the index's order, by bytes, all
// paths below a folder stand together, so a folder is entered once and no map from path to folder is needed.
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
    // A role covers all below it: src/ within tests/ holds tests. Where all code lies in such folders the
    // names say nothing, and in a repository of text they are of no interest.
    child.role = folders_[parent].role;
    if (child.ordinary() && reading_ == Reading::code) {
      child.role = folder_role(child.path, index);
      if (child.ordinary() && licensed_apart_.count(child.path) > 0) child.role = FolderRole::vendored;
    }
    open.push_back(folders_.size());
    folders_[parent].children.push_back(folders_.size());
    folders_.push_back(std::move(child));
  }
}

// Moves the files that are the head of a folder beside them into that folder: they are one subject, and the
// folder's page would otherwise lack the file that declares what is in it.
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

// Backward, so that a folder has its whole weight before it is added to its parent, which stands before it.
void FolderTree::weigh() {
  for (std::size_t i = folders_.size(); i-- > 0;) {
    Folder& folder = folders_[i];
    for (const SourceFile* file : folder.files) folder.weight += weight(*file, folder.role);
    Folder& parent = folders_[folder.parent];
    if (i > 0 && folder.ordinary() == parent.ordinary()) parent.weight += folder.weight;
  }
}

}  // namespace ossilar::workers::wiki
