// Cuts the tree of folders into what one author can handle on one page. planner.cc names the pieces and makes
// pages of them.
//
// Thread-safety: no state is kept. It does not fail; a tree without weight gives no drafts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/plan/folder_tree.h"

namespace ossilar::workers::wiki {

inline constexpr std::size_t kTop = static_cast<std::size_t>(-1);  // Draft::parent of one with no page above

// A page about code before it has a name.
struct Draft {
  std::string path = {};  // of the folder; "" for the root
  // Which of the folder's files, such as "parser*"; "" for all. For bundled code the names of the projects.
  std::string label = {};
  std::string slug = {};  // of the label
  FolderRole role = FolderRole::ordinary;
  std::size_t parent = kTop;  // index of the draft above
  std::int64_t weight = 0;
  std::vector<const source::SourceFile*> files = {};
  bool is_cut = false;  // there are more files than the draft lists
};

// The drafts for the whole tree, each after the one above it. A file is in one draft at most; what is too
// little for a page of its own may be in none. Valid as long as the tree's index.
std::vector<Draft> cut_tree(const FolderTree& tree, const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
