// Whether what was seen at the last look at a tree still holds, by what a watch has told since.
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

// Thread-safety: none. Lifetime: `root` and `excluded` must outlive it.
class LastLook {
 public:
  LastLook(const std::filesystem::path& root, const Exclusions& excluded)
      : root_(root), excluded_(excluded), watch_(root) {}

  // Whether what was seen at the last look, which gave these entries, still is so.
  bool is_unchanged(std::int64_t now, const Entries& entries);

  // Lists the files, so that what happens to them from now on is heard of. What is listed was watched before,
  // but for folders outside git: what came into one between its listing and its watching is in the next
  // listing.
  Listing list(Tree& tree);

  // The look that list() began is done.
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
  std::vector<std::string> absent_;  // listed at the last look without an entry, in order
  std::int64_t looked_at_ = 0;
  bool complete_ = false;  // the last look came to its end, and nothing happened since
};

}  // namespace ossilar::source
