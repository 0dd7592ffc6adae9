// Telling whether a file is the one that was seen before.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>

namespace ossilar::utils {

// Which file a path names, and in which state: another one, or one that was written meanwhile, has another
// stamp. All zero where there is none. Times are nanoseconds since the epoch.
struct FileStamp {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::int64_t modified = 0;
  bool operator==(const FileStamp&) const = default;
  bool is_same_file(const FileStamp& other) const { return device == other.device && inode == other.inode; }
};
FileStamp stamp_of(const std::filesystem::path& path);
FileStamp stamp_from(const struct stat& info);

}  // namespace ossilar::utils
