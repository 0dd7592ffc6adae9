// The time of the last change (ctime) is left out, as it also changes when a file is renamed, linked or given
// another mode, and its content is the same. What that gives up: a tool that sets the modification time back
// after an edit of the same size goes unnoticed.

#include "ossilar/utils/file_stamp.h"

namespace ossilar::utils {

FileStamp stamp_from(const struct stat& info) {
  return {.device = info.st_dev,
          .inode = info.st_ino,
          .size = static_cast<std::uint64_t>(info.st_size),
          .modified = std::int64_t{info.st_mtim.tv_sec} * 1'000'000'000 + info.st_mtim.tv_nsec};
}

FileStamp stamp_of(const std::filesystem::path& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? stamp_from(info) : FileStamp{};
}

}  // namespace ossilar::utils
