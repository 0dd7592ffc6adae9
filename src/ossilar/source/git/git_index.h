// The list of files that git tracks, which is also what it would commit now. listing.cc takes the files of a
// wiki from it, change.cc what is staged.
//
// Thread-safety: every function may be called from any thread. Nothing is written, so a failure leaves
// nothing behind.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

#include "ossilar/source/git/git.h"

namespace ossilar::source {

// The index of the repository at `root`. Throws utils::Error for one that libgit2 cannot read, with what to
// do where git can.
GitHandle<git_index> read_index(git_repository* repository, const std::filesystem::path& root);

struct StagedFile {
  std::string blob;  // "" while the file is in conflict
  // Of the file when git looked at it last: bytes, and nanoseconds since the epoch.
  std::uint64_t size = 0;
  std::int64_t modified = 0;
  // Whether that was before the index was written: a file of the same size and time has the same content
  // then.
  bool is_settled = false;
};

// What git would commit now, by path; paths that are not UTF-8 and submodules are left out. Empty outside
// git. Throws as read_index() and open_repository().
std::map<std::string, StagedFile> staged_files(const std::filesystem::path& root);

}  // namespace ossilar::source
