// Which files a repository has.
#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/file_reader.h"

namespace ossilar::source {

// Relative paths, each a file or a folder with all below it.
class Exclusions {
 public:
  explicit Exclusions(const std::vector<std::string>& paths);
  bool covers(std::string_view path) const;

 private:
  std::set<std::string, std::less<>> paths_;
};

struct Listed {
  std::string path;
  bool is_submodule = false;  // a repository of its own, if it is a directory
};

struct Listing {
  std::vector<Listed> files;         // in the order of their paths' bytes, each once
  std::vector<std::string> skipped;  // paths that are not UTF-8, fit for messages
  std::filesystem::path index_file;  // where git keeps what it tracks; empty outside git
  std::vector<std::string> walked;   // outside git: the folders that were listed, "" among them
};

// The files that git tracks (whether or not the working tree still holds them), or outside git all that lie
// below `root`. `tree` is of the same root. Throws Error when `root` cannot be listed or its repository is
// damaged.
//
// Thread-safety: may be called from any thread, with a tree of its own.
Listing list_files(const std::filesystem::path& root, const Exclusions& excluded, Tree& tree);

}  // namespace ossilar::source
