// How the trees of two commits differ. change.cc asks.
//
// Thread-safety: as GitObjects, one thread at a time. Nothing is written, so a failure leaves nothing behind.
#pragma once

#include <string>
#include <vector>

#include "ossilar/source/git/git_objects.h"

namespace ossilar::source {

// A file that is in one tree, or in both with another content. A side without the file has "" as its blob.
struct TreeChange {
  std::string path;
  std::string before;
  std::string after;
  bool operator==(const TreeChange&) const = default;
};

// In the order of paths, those left out that are not UTF-8. Takes the time of the folders that differ. Throws
// utils::Error when a commit, or a folder of it, is not here.
std::vector<TreeChange> tree_changes(const GitObjects& objects, const std::string& before,
                                     const std::string& after);

// The same of any two sets of files. Takes the time of all of them.
std::vector<TreeChange> file_changes(const CommitFiles& before, const CommitFiles& after);

}  // namespace ossilar::source
