// Cuts the tree of folders into what one author can handle.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/plan/folder_tree.h"

namespace ossilar::workers::wiki {

// Of tests, vendored code and the like a page tells the layout, which the files nearest to the top show. All
// of them would make the page stale with every change.
inline constexpr std::size_t kGatheredFiles = 200;

inline constexpr std::size_t kTop = static_cast<std::size_t>(-1);  // no page above

// A page about code before it has a name.
struct Draft {
  std::string path;   // of the folder; "" for the root
  std::string label;  // which of the folder's files, such as "parser*"; "" for all
  std::string slug;   // of the label
  FolderRole role = FolderRole::ordinary;
  std::size_t parent = kTop;  // index of the draft above
  std::int64_t weight = 0;
  std::vector<const source::SourceFile*> files;
};

// The drafts for the whole tree, each after the one above it. Valid as long as the tree's index.
std::vector<Draft> cut_tree(const FolderTree& tree);

}  // namespace ossilar::workers::wiki
