// The folders of a repository with what their code weighs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/plan/file_roles.h"

namespace ossilar::workers::wiki {

// What a repository consists of, and so what its pages are about.
enum class Reading {
  code,           // code; what tests, shows or documents it lies in folders known by their names
  code_anywhere,  // code, all of it in such folders, so that their names say nothing
  all_text,       // no code at all: a repository of documents or data
};

// Opening a file costs an author about this many lines on top of those in it.
inline constexpr std::int64_t kFileWeight = 30;
// Files shorter than this, such as the marker of a package, cost nothing.
inline constexpr std::int64_t kEmptyLines = 3;

struct Folder {
  std::string path;                        // "" for the root
  FolderRole role = FolderRole::ordinary;  // that of the folder around it, when that one has one
  std::size_t parent = 0;
  std::size_t end = 0;                // the folders below are those from the next to this one, exclusive
  std::vector<std::size_t> children;  // in the order of their paths
  // Those that a page may rest on. A file named like a folder beside it (parser.rs, parser/) is in that
  // folder.
  std::vector<const source::SourceFile*> files;
  std::int64_t weight =
      0;  // of the code here and below; of an ordinary folder that of ordinary folders alone

  bool ordinary() const { return role == FolderRole::ordinary; }
};

// Valid as long as the index that it was made from.
class FolderTree {
 public:
  explicit FolderTree(const source::SourceIndex& index);

  Reading reading() const { return reading_; }
  const Folder& operator[](std::size_t folder) const { return folders_[folder]; }
  const Folder& root() const { return folders_.front(); }
  std::size_t size() const { return folders_.size(); }

  // What the file adds to a page about `role` code.
  std::int64_t weight(const source::SourceFile& file, FolderRole role = FolderRole::ordinary) const;
  // The role of one of the index's files. Told once: a plan asks for it again and again.
  FileRole role(const source::SourceFile& file) const { return roles_.at(&file); }

 private:
  bool lists(const source::SourceFile& file) const;  // whether a page may rest on the file
  void build(const source::SourceIndex& index);
  void enter(std::vector<std::size_t>& open, std::string_view folder, const source::SourceIndex& index);
  void move_namesakes(Folder& folder);
  void weigh();

  Reading reading_ = Reading::code;
  std::unordered_map<const source::SourceFile*, FileRole> roles_;
  std::vector<Folder> folders_;
};

}  // namespace ossilar::workers::wiki
