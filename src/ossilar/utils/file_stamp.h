// Tells whether a file is still the one that was seen before, without reading it.
//
// Used for the manifests that a process has read or written (workers/wiki/pages/list_files.cc), for page
// files that version control brings (workers/wiki/check/arrivals.cc), for git's files (source/checkout.cc)
// and for the database. The index of sources keeps a stricter stamp of its own (source/file_reader.h).
//
// Thread-safety: stamps are values; both functions may be called from any thread. Nothing throws.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>

namespace ossilar::utils {

// Which file a path names, and in which state. Another file, or the same file written again, has another
// stamp. Two changes escape it: a write that keeps the size, if it comes within one tick of the file system's
// clock or the time is set back after it, and a new file that gets number, size and time of one that was
// removed.
struct FileStamp {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::int64_t modified = 0;  // nanoseconds since the epoch
  bool operator==(const FileStamp&) const = default;
  // The same file, written to since or not.
  bool is_same_file(const FileStamp& other) const { return device == other.device && inode == other.inode; }
};

// The stamp of the file that `path` names, symbolic links followed; all zero when there is none or it cannot
// be looked at.
FileStamp stamp_of(const std::filesystem::path& path);

// The same from what stat(2) gave.
FileStamp stamp_from(const struct stat& info);

}  // namespace ossilar::utils
