// Pages that gather what lies beside the code: tests, examples, documentation, code of other projects. Such a
// page tells what is there and how it is laid out, so it rests on a choice of the files; with all of them as
// sources every change would make it stale.
//
// Thread-safety: no state is kept, so any thread may call these. None fails.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/plan/folder_tree.h"

namespace ossilar::workers::wiki {

struct Gathered {
  std::vector<const source::SourceFile*> files;
  bool is_cut = false;  // there are more files than these
};

// A choice of `files` that shows as many of their folders as it can, and weighs what an author can read:
// the first file of each folder, those nearest to the top first, then the second of each, and so on.
Gathered gathered(std::vector<const source::SourceFile*> files);

struct BundledCode {
  std::vector<std::string> projects;  // the names of their folders or files, in the order of their paths
  Gathered shown;                     // what says which project it is, and of which version and licence
};

// What other projects gave to this one: `folders` with all below them, and `files` that lie elsewhere. A
// folder with projects in it, such as deps/, is told from one that is a project by what lies in it directly.
BundledCode bundled_code(const FolderTree& tree, const std::vector<std::size_t>& folders,
                         const std::vector<const source::SourceFile*>& files,
                         const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
