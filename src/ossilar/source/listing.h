// Lists the files of a repository: the first step of a refresh. indexer.cc calls list_files(), with a watch
// through last_look.cc.
//
// Nothing is written, so a failure leaves nothing behind.
#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/file_reader.h"

namespace ossilar::source {

// What is left out of an index: relative paths, each a file or a folder with all below it.
//
// Thread-safety: immutable, may be used from any threads.
class Exclusions {
 public:
  explicit Exclusions(const std::vector<std::string>& paths);
  // Whether `path`, or a folder above it, is left out.
  bool covers(std::string_view path) const;

 private:
  std::set<std::string, std::less<>> paths_;
};

// One path of a listing. What lies there, if anything, is looked at later.
struct Listed {
  std::string path;
  bool is_submodule = false;  // a directory here is a repository of its own
};

struct Listing {
  std::vector<Listed> files;         // in the order of their paths' bytes, each once
  std::vector<std::string> skipped;  // paths that are not UTF-8, escaped for messages
  std::filesystem::path index_file;  // where git keeps what it tracks; empty outside git
  std::vector<std::string> walked;   // outside git: the folders that were listed, "" among them
};

// The files that git tracks (whether or not the working tree still holds them), or outside git all files
// below `root`. `tree` has the same root. Outside git a folder that cannot be listed is logged and left out.
// Throws utils::Error when `root` cannot be listed, or its repository is damaged or in a form that libgit2
// cannot read.
//
// Thread-safety: may be called from any thread, with a tree of its own.
Listing list_files(const std::filesystem::path& root, const Exclusions& excluded, Tree& tree);

}  // namespace ossilar::source
