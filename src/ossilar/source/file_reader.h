// Looks at and reads files below one root, and nothing else, whatever the tree is changed into meanwhile.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/utils/files.h"

namespace ossilar::source {

// What tells one state of a file from another without reading it. Times are nanoseconds since the epoch.
struct Stamp {
  std::uint64_t size = 0;
  std::int64_t modified = 0;
  std::int64_t changed = 0;
  std::uint64_t inode = 0;
  std::uint64_t device = 0;
  bool operator==(const Stamp&) const = default;
};

struct Look {
  FileKind kind = FileKind::text;  // text stands for every regular file of readable size
  bool is_directory = false;       // then kind is special
  int error = 0;                   // of what cannot be looked at: the errno value
  Stamp stamp;
};

struct Reading {
  FileKind kind = FileKind::text;
  Stamp stamp;
  bool is_steady = false;  // the stamp was the same before and after
  int error = 0;           // of an unreadable file: the errno value
  std::string content;     // of text and binary files
};

struct DirectoryEntry {
  std::string name;
  bool is_directory = false;  // a symbolic link is none
};

// Paths are relative to the root, '/' between parts. Whatever a path is, no symbolic link is followed, on the
// way neither, and nothing is opened that is no regular file: the tree is walked by descriptors, not by
// names.
//
// Thread-safety: one thread at a time; it remembers the directory it was last in, and those above it.
class Tree {
 public:
  // Throws IoError when `root` (absolute, without symbolic links) cannot be opened.
  explicit Tree(std::filesystem::path root);

  // What `path` is, or none when there is no such file or it is not a path that git would check out (a part
  // that is empty, ".", ".." or ".git"). Throws IoError when the system is out of descriptors or memory.
  std::optional<Look> look(const std::string& path);

  // The file as of now; none as for look(), and for a directory. Throws as look().
  std::optional<Reading> read(const std::string& path);

  // What lies in the directory `folder` ("" for the root), without "." and "..". Throws IoError.
  std::vector<DirectoryEntry> list(const std::string& folder);

 private:
  int enter(std::string_view folder);
  int enter_parent(const std::string& path, std::string& name);
  std::size_t reached() const;

  std::filesystem::path root_;
  utils::UniqueFd root_fd_;
  struct Step {
    std::size_t end;  // of the folder's path in folder_
    utils::UniqueFd fd;
  };
  std::string folder_;       // "" for the root
  std::vector<Step> steps_;  // those of folder_, some of the deeper ones left out
};

}  // namespace ossilar::source
