// Where the files of saved pages are today, when they were renamed or moved since. kept_ids.cc asks.
//
// There is no history to look into: outside git there is none, and a clone may be shallow. So only what a
// page knew at its save and the tree of today are compared.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/plan/saved_page.h"

namespace ossilar::workers::wiki {

// Thread-safety: immutable once made. Lifetime: refers to the index, and gives views of its paths. It does
// not fail: a file that cannot be found with confidence is gone.
class MovedFiles {
 public:
  // `pages` are those that will be asked about. Takes time in their files, and in the index if any is gone.
  MovedFiles(const std::vector<const SavedPage*>& pages, const source::SourceIndex& index);

  // The path of each of the page's files today, in their order; "" for one that is gone. Two files of a page
  // never have one path.
  //
  // A text at the same path is the file, whatever it holds. Otherwise it is the file of the same content: of
  // several the one of the same name at the path with the longest common end, if that is one alone.
  // Otherwise, where the whole folder is gone, it is the file of the same name to which most of the page's
  // files of that place moved, at least two.
  std::vector<std::string_view> places(const SavedPage& page) const;

 private:
  class Search;

  const source::SourceIndex& index_;
  // Those of the files that are gone from their paths, by the digits of their content.
  std::unordered_map<std::string, std::vector<const source::SourceFile*>> by_content_;
};

}  // namespace ossilar::workers::wiki
