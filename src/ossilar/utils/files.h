// Opens and reads files and directories without following a symbolic link out of the place where they belong.
//
// Almost every room reads through here: the index its sources (source), the wiki its pages, lists and
// configuration (workers/wiki), the command its input (cli). Writing is in atomic_file.h.
//
// Thread-safety: every function may be called from any thread; a UniqueFd is used by one thread at a time.
//
// Failure: IoError for what the system refuses, Error for a path or a text that is not allowed. Nothing is
// left behind but the directories that Missing::create made before the failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/utils/file_stamp.h"

namespace ossilar::utils {

// A file descriptor that is closed with its owner; -1 owns nothing.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd();
  int get() const { return fd_; }
  // Gives the descriptor up: somebody else closes it.
  int release() { return std::exchange(fd_, -1); }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// What open_directory() does about a directory that does not exist.
enum class Missing { fail, create };

// Opens the directory `path` (absolute), following no symbolic link on the way. A directory that it creates
// is on disk, with its name in its parent, when this returns. The descriptor is for *at() calls; one of a
// directory that may be searched but not read is good for nothing else (O_PATH). Throws IoError; for a
// symbolic link on the way, error() is ELOOP and the message names the link.
UniqueFd open_directory(const std::filesystem::path& path, Missing missing = Missing::fail);

// Whether some process has the file `fd` open for writing; `fd` itself must be open for reading only. True
// also for another user's file, of which the system does not tell. False where the file system cannot tell.
bool is_open_for_writing(int fd);

// Whether there is anything at `path`, a symbolic link to nothing included. Also true where the system cannot
// say.
bool is_there(const std::filesystem::path& path);

// Whether `path` is a regular file, symbolic links followed. False for a path that cannot name one, such as a
// link to itself or a name that is too long. Throws IoError when the system does not say.
bool is_regular_file(const std::filesystem::path& path);

// The bytes of the open file or pipe `fd` up to its end, or nothing when there are more than `limit`. `name`
// is for messages. Throws IoError.
std::optional<std::string> read_at_most(int fd, std::size_t limit, const std::string& name);

// The bytes of the regular file `path` (absolute), which lies in `directory` or below. A symbolic link that
// stays in `directory` is followed; one that leads out is refused with Error, even if links are changed
// during the call. Where the kernel has no openat2(2), no link is followed. Throws IoError when the file
// cannot be read.
std::string read_file_within(const std::filesystem::path& directory, const std::filesystem::path& path);

// Whether a byte order mark at the start belongs to the file's encoding, and is dropped, or to its text.
enum class ByteOrderMark { dropped, kept };

// The same file as text, its line ends normalised to line feeds. Throws what require_utf8() throws, too.
std::string read_text_file_within(const std::filesystem::path& directory, const std::filesystem::path& path,
                                  ByteOrderMark mark = ByteOrderMark::dropped);

// What read_text_file_within() makes of the bytes of a file; `name` is for messages.
std::string text_of(const std::string& bytes, const std::string& name,
                    ByteOrderMark mark = ByteOrderMark::dropped);

// Throws Error when `text` is not UTF-8: "NAME is not UTF-8: byte 0xFF at offset 12 (line 2)".
void require_utf8(std::string_view text, const std::string& name);

}  // namespace ossilar::utils
