// System calls on files, for files.cc and atomic_file.cc only.
//
// Thread-safety: every function may be called from any thread.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "ossilar/utils/error.h"

namespace ossilar::utils {

// Repeats `call`, which returns -1 and sets errno when it fails, as long as a signal interrupts it. Returns
// what its last call returned.
template <class Call>
auto retry_interrupted(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

// Syncs the open file or directory `fd`; `path` is for the message. A failed sync is never tried again, not
// even after EINTR: the kernel may have marked the unwritten pages clean, so a second call would report
// success for data that is not on disk.
inline void sync_or_throw(int fd, const std::filesystem::path& path) {
  if (fsync(fd) != 0) throw IoError("cannot sync " + path.string() + " to disk", errno);
}

// Throws IoError for a file of `mode` that is not regular: EISDIR for a directory, EINVAL for a pipe, a
// socket or a device.
[[noreturn]] inline void throw_not_regular(const std::filesystem::path& path, mode_t mode) {
  throw IoError(path.string() + " is not a regular file; move it away", S_ISDIR(mode) ? EISDIR : EINVAL);
}

}  // namespace ossilar::utils
