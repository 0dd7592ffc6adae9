// System calls on files as files.cc and atomic_file.cc make them.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "ossilar/utils/error.h"

namespace ossilar::utils {

template <class Call>
auto retry_interrupted(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

// A failed sync is never tried again: the kernel may have dropped the pages and would report success.
inline void sync_or_throw(int fd, const std::filesystem::path& path) {
  if (fsync(fd) != 0) throw IoError("cannot sync " + path.string() + " to disk", errno);
}

[[noreturn]] inline void throw_not_regular(const std::filesystem::path& path, mode_t mode) {
  throw IoError(path.string() + " is not a regular file; move it away", S_ISDIR(mode) ? EISDIR : EINVAL);
}

}  // namespace ossilar::utils
