// The folders of a repository, with the files that pages may rest on and what reading those costs an author.
// planner.cc makes one for each plan; tree_cutter.cc cuts it into pages.
//
// Thread-safety: immutable once made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/plan/file_roles.h"

namespace ossilar::workers::wiki {

// What a repository consists of, and so what its pages are about. Tried in this order until something has
// weight.
enum class Reading {
  code,           // code; what tests, shows or documents it lies in folders known by their names
  code_anywhere,  // code, all of it in such folders, so that their names say nothing
  all_text,       // no code at all: a repository of documents or data
};

// Weights count lines to read. Opening a file costs about this many on top of those in it, so that a hundred
// tiny files do not pass for a small page. A judgement, not a measurement: tree_cutter.cc's limits are in the
// same unit.
inline constexpr std::int64_t kFileWeight = 30;
// Files with fewer lines, such as the marker of a package, weigh nothing: they have nothing to write about.
inline constexpr std::int64_t kEmptyLines = 3;

struct Folder {
  std::string path;                        // "" for the root
  FolderRole role = FolderRole::ordinary;  // of the outermost folder that has one: tests/src is tests
  std::size_t parent = 0;                  // index; the root's is its own
  std::size_t end = 0;                     // this folder and all below it are [its index, end)
  std::vector<std::size_t> children;       // in the order of their paths
  // Those in the folder itself that a page may rest on. A file named like a folder beside it (parser.rs,
  // parser/) is in that folder instead.
  std::vector<const source::SourceFile*> files;
  // Of the files here and below; below an ordinary folder only ordinary folders count.
  std::int64_t weight = 0;

  bool ordinary() const { return role == FolderRole::ordinary; }
};

// In preorder, the root first, so that a subtree is a range. Valid as long as the index that it was made
// from.
class FolderTree {
 public:
  explicit FolderTree(const source::SourceIndex& index);

  Reading reading() const { return reading_; }
  const Folder& operator[](std::size_t folder) const { return folders_[folder]; }
  const Folder& root() const { return folders_.front(); }
  std::size_t size() const { return folders_.size(); }

  // What the file adds to the weight of a page that is about a folder of `role`; 0 for a file that only goes
  // along.
  std::int64_t weight(const source::SourceFile& file, FolderRole role = FolderRole::ordinary) const;
  // The role of one of the index's files; throws std::out_of_range for any other. Computed once per file,
  // because a plan asks for it many times.
  FileRole role(const source::SourceFile& file) const { return roles_.at(&file); }
  // Files of other projects that lie among the code. None in a repository that consists of little else.
  const std::vector<const source::SourceFile*>& bundled_files() const { return bundled_files_; }

 private:
  void take_roles(const source::SourceIndex& index);
  void settle_generated(const source::SourceFile& grammar, const source::SourceIndex& index);
  void settle_bundled(std::int64_t own_lines);
  bool lists(const source::SourceFile& file) const;  // whether a page may rest on the file
  void build(const source::SourceIndex& index);
  void enter(std::vector<std::size_t>& open, std::string_view folder, const source::SourceIndex& index);
  void move_namesakes(Folder& folder);
  void weigh();

  Reading reading_ = Reading::code;
  std::unordered_map<const source::SourceFile*, FileRole> roles_;
  std::vector<const source::SourceFile*> bundled_files_;  // in the order of their paths
  std::unordered_set<std::string> licensed_apart_;  // folders with a licence that is not the repository's
  std::vector<Folder> folders_;
};

}  // namespace ossilar::workers::wiki
