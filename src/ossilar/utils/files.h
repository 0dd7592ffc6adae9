// Files on disk: reading whole, and replacing whole or not at all.
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

// Replaces the file `path` (absolute) by `text`: at every instant, a crash or power cut included, the file is
// the old one or the new one, whole, and when this returns the new one is on disk. Gives the stamp of the new
// file. Missing directories are created. An existing file's mode is kept. Refuses, with IoError and nothing
// changed, a target that is no regular file, a symbolic link in its place, and a path with a symbolic link on
// the way.
FileStamp atomic_write(const std::filesystem::path& path, std::string_view text);

// The same for several files of one directory: each is replaced whole, one after the other, when all are
// written. The directory is synced once, which spares time.
struct NamedText {
  std::string name;  // without a directory
  std::string_view text;
};
std::vector<FileStamp> atomic_write_all(const std::filesystem::path& directory,
                                        const std::vector<NamedText>& files);

// The same as atomic_write(), but the file that was there when the new one took its place is not lost: it
// lies beside it as former_file(path), for the caller to look at and then to remove. The two swap places in
// one call (renameat2(2), RENAME_EXCHANGE), so whatever a hand did until then is in that file. A file system
// that cannot swap gets a second name for the old file first, or a copy where it has no second names; what a
// hand does between these two calls may then be lost. Refuses, with IoError and nothing changed, when a
// former file is there already.
FileStamp atomic_exchange(const std::filesystem::path& path, std::string_view text);

// Where atomic_exchange() leaves what was at `path`: a hidden name in the same directory, the same for the
// same path.
std::filesystem::path former_file(const std::filesystem::path& path);

// Whether some process has the open file `fd` (opened for reading alone) open for writing, as far as the
// system tells: false where it does not, true for a file of another owner, of which it does not say.
bool is_open_for_writing(int fd);

// Moves the file `from` to `to` (both absolute), in whose directory, made where it is missing, no other file
// has that name; the move is on disk when this returns. False, with nothing changed, when they lie on
// different file systems or the name is taken. Throws IoError.
bool move_file(const std::filesystem::path& from, const std::filesystem::path& to);

struct Leftover {
  std::string name;
  bool may_be_new;  // empty: one that is just being made looks the same for a moment
};

// The temporary files that writes left in `directory` (absolute, not what is below it) because they were cut
// short; those of calls still at work are not among them. None where the directory is not there.
std::vector<Leftover> leftovers(const std::filesystem::path& directory);

// Removes them, also when one has just begun to write: that one takes another name.
void remove_leftovers(const std::filesystem::path& directory);

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
