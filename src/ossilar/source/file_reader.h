// Looks at and reads files below one root and nothing else, however the tree is changed meanwhile. refresh.cc
// looks and reads, listing.cc lists folders outside git, and read_source() (indexer.cc) reads single files.
//
// Nothing is written, so a failure leaves nothing behind. A file that cannot be read is a result, not an
// exception.
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

// Tells two states of a file apart without reading it. Times are nanoseconds since the epoch.
struct Stamp {
  std::uint64_t size = 0;
  std::int64_t modified = 0;
  std::int64_t changed = 0;  // moves also when `modified` is set back, as touch(1) does
  std::uint64_t inode = 0;
  std::uint64_t device = 0;
  bool operator==(const Stamp&) const = default;
};

// The metadata of a path.
struct Look {
  FileKind kind = FileKind::text;  // text stands for every regular file of readable size
  bool is_directory = false;       // then kind is special
  int error = 0;  // the errno value when the path cannot be looked at; kind is unreadable then
  Stamp stamp;
};

// A file's content with the metadata that it was read with.
struct Reading {
  FileKind kind = FileKind::text;
  Stamp stamp;
  bool is_steady = false;  // the stamp was the same before and after the reading
  int error = 0;           // the errno value of an unreadable file
  std::string content;     // of text and binary files, else empty
};

// One name in a directory.
struct DirectoryEntry {
  std::string name;
  bool is_directory = false;  // false for a symbolic link to one
};

// Paths are relative to the root, '/' between parts. No symbolic link is followed, neither at a path's end
// nor on the way, and only regular files are opened for reading: the tree is walked by descriptors, not by
// names.
//
// Thread-safety: one thread at a time, as it keeps the folder that it was last in open, and those above it.
// Paths in order are therefore the cheapest.
class Tree {
 public:
  // Throws IoError when `root` (absolute, without symbolic links) cannot be opened.
  explicit Tree(std::filesystem::path root);

  // The metadata of `path`. None when there is no such file, or when git would not check out such a path (a
  // part is empty, ".", ".." or ".git"). Throws IoError when the system is out of descriptors or memory.
  std::optional<Look> look(const std::string& path);

  // The content of `path` as of now. None as for look(), and for a directory. Throws as look().
  std::optional<Reading> read(const std::string& path);

  // What lies in the directory `folder` ("" for the root), in any order, without "." and "..". Throws
  // IoError.
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
  std::string folder_;       // the one entered last; "" for the root
  std::vector<Step> steps_;  // open folders on the way to folder_, outermost first; deep ones may be left out
};

// Whether the system call failed because this process, or the system, is out of descriptors or memory: that
// says nothing about the file.
bool is_exhaustion(int error);

}  // namespace ossilar::source
