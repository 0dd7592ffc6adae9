// Files and directories on disk: opening and reading them without following links out of where they lie.
//
// Thread-safety: every function may be called from any thread.
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

// An owned file descriptor; -1 owns nothing.
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
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// What a walk along a path does with a directory that is not there.
enum class Missing { fail, create };

// Opens the directory `path` (absolute) component by component, following no symbolic link on the way. A
// directory that it creates is on disk, with its name in its parent, when this returns. The descriptor is for
// *at() calls. Throws IoError; for a symbolic link on the way its error() is ELOOP and the message names the
// link.
UniqueFd open_directory(const std::filesystem::path& path, Missing missing = Missing::fail);

// Whether some process has the open file `fd` (opened for reading alone) open for writing, as far as the
// system tells: false where it does not, true for a file of another owner, of which it does not say.
bool is_open_for_writing(int fd);

// Whether `path` is a regular file, symbolic links followed. A path that cannot name one, such as a link to
// itself or a name that is too long, is none. Throws IoError when the system cannot say.
bool is_regular_file(const std::filesystem::path& path);

// The bytes of the open file `fd`, at most `limit` of them: none when it holds more. `name` is for messages.
std::optional<std::string> read_at_most(int fd, std::size_t limit, const std::string& name);

// The bytes of the regular file `path` (absolute), which lies in `directory` or below. A symbolic link that
// stays in `directory` is followed; one that leads out of it is refused with Error, whatever is changed
// meanwhile. Throws IoError when the file cannot be read.
std::string read_file_within(const std::filesystem::path& directory, const std::filesystem::path& path);

// What the start of a text may be: a byte order mark belongs to the file's encoding, or to its text.
enum class ByteOrderMark { dropped, kept };

// The same as text, line ends normalised. Throws Error naming the byte when it is not UTF-8.
std::string read_text_file_within(const std::filesystem::path& directory, const std::filesystem::path& path,
                                  ByteOrderMark mark = ByteOrderMark::dropped);

// `bytes` as that text; `name` is for messages.
std::string text_of(const std::string& bytes, const std::string& name,
                    ByteOrderMark mark = ByteOrderMark::dropped);

// Throws Error when `text` is not UTF-8: "NAME is not UTF-8: byte 0xFF at offset 12 (line 2)".
void require_utf8(std::string_view text, const std::string& name);

}  // namespace ossilar::utils
