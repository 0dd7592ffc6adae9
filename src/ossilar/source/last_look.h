// Tells whether the last scan of a tree still holds, so that a refresh can skip the next one. A "look" is
// such a scan: the files are listed, and the metadata of each is looked at. indexer.cc has one when
// Options::watch is set.
//
// A failure between list() and set_looked() leaves the last look incomplete, and the next refresh scans.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "ossilar/source/listing.h"
#include "ossilar/source/record.h"
#include "ossilar/source/tree_watch.h"
#include "ossilar/utils/files.h"

namespace ossilar::source {

// Thread-safety: one thread at a time; the indexer's mutex sees to it.
// Lifetime: `root` and `excluded` must outlive it.
class LastLook {
 public:
  LastLook(const std::filesystem::path& root, const Exclusions& excluded)
      : root_(root), excluded_(excluded), watch_(root) {}

  // Whether nothing changed since the last look, which gave these entries. `now` is nanoseconds since the
  // epoch. Once false, it stays false until set_looked().
  bool is_unchanged(std::int64_t now, const Entries& entries);

  // Lists the files and watches their folders, so that no change after this call is missed. Call it before
  // the metadata is looked at. Throws as list_files().
  Listing list(Tree& tree);

  // Ends the look that list() began at `now`: `entries` are what became of the listing.
  void set_looked(std::int64_t now, Listing listing, const Entries& entries);

 private:
  std::filesystem::path find_index_file() const;
  bool concerns(const std::string& path, const Entries& entries) const;

  const std::filesystem::path& root_;
  const Exclusions& excluded_;
  TreeWatch watch_;
  utils::FileStamp root_stamp_;
  std::filesystem::path index_file_;  // empty outside git
  utils::FileStamp index_stamp_;
  std::vector<std::string> absent_;  // paths that were listed but had no file, in order: one may come back
  std::int64_t looked_at_ = 0;
  bool complete_ = false;  // the last look came to its end, and nothing happened since
};

}  // namespace ossilar::source
