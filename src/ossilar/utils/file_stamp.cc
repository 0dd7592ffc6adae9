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
