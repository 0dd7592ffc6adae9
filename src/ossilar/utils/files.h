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

// A file that is held open, so that none that takes its place can look the same: the number of a file that is
// gone is given to a new one, and the clock of a file system stands still for milliseconds.
class HeldFile {
 public:
  // What `path` names now, or nothing. A symbolic link is not followed.
  explicit HeldFile(std::filesystem::path path);
  // Whether the path still names it, unchanged.
  bool is_in_place() const;
  const FileStamp& stamp() const { return stamp_; }

 private:
  std::filesystem::path path_;
  UniqueFd fd_;
  FileStamp stamp_;
};

// A text on disk beside the file that it is to replace, under a name that nobody can foresee; gone at the end
// unless it was placed. For the errors see atomic_write(), which is the making and the placing of one.
class StagedFile {
 public:
  // Makes missing directories; when this returns the text is on disk.
  StagedFile(std::filesystem::path path, std::string_view text);
  StagedFile(StagedFile&& other) noexcept;
  StagedFile& operator=(StagedFile&&) = delete;
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;
  ~StagedFile();

  const std::filesystem::path& target() const { return target_; }
  // Whether the directory, and the file to be replaced, are still what this was made for.
  bool fits() const;
  // What stamp_of(path) is once this file is placed.
  FileStamp stamp() const;
  // Takes the place of the file; on disk with the next sync of the directory.
  void place();
  void sync_directory() const;

 private:
  void create();

  std::filesystem::path target_;
  UniqueFd directory_;
  std::optional<mode_t> mode_;  // of the file to be replaced; none where there is none
  std::string name_;
  UniqueFd fd_;
};

// A text that is put on disk before it is decided that it replaces a file. While one lives on the thread that
// made it, atomic_write() of the same text to the same file has only to put it in place. Scopes do not nest.
class WrittenAhead {
 public:
  WrittenAhead();
  ~WrittenAhead();
  WrittenAhead(const WrittenAhead&) = delete;
  WrittenAhead& operator=(const WrittenAhead&) = delete;

  // That of the calling thread, or null.
  static WrittenAhead* current();

  // Says what is to be written; what was written before is given up.
  void announce(const std::filesystem::path& path, const std::string& text);
  // Writes what was announced, once, where its directory is there. What fails is left to atomic_write(),
  // which will say so.
  void write();
  // False, with nothing changed, when it was not written, or is not for that place as it is now.
  bool place(const std::filesystem::path& path, std::string_view text);

 private:
  std::filesystem::path path_;  // of what is announced and not written yet; else empty
  std::string text_;
  std::optional<StagedFile> file_;
};

// Replaces the file `path` (absolute) by `text`: at every instant, a crash or power cut included, the file is
// the old one or the new one, whole, and when this returns the new one is on disk. Missing directories are
// created. An existing file's mode is kept. Refuses, with IoError and nothing changed, a target that is no
// regular file, a symbolic link in its place, and a path with a symbolic link on the way.
void atomic_write(const std::filesystem::path& path, std::string_view text);

// While one lives on the thread that made it, the files that are replaced there are kept open: to
// free the blocks of a file can take longer than to write, sync and place the one that replaces it (ext4 with
// `discard`: ten times as long). They are freed at its end, when nobody waits any more. Scopes do not nest.
class ReplacedFilesKept {
 public:
  ReplacedFilesKept();
  ~ReplacedFilesKept();
  ReplacedFilesKept(const ReplacedFilesKept&) = delete;
  ReplacedFilesKept& operator=(const ReplacedFilesKept&) = delete;

  // That of the calling thread, or null.
  static ReplacedFilesKept* current();
  void keep(UniqueFd file) { files_.push_back(std::move(file)); }

 private:
  std::vector<UniqueFd> files_;
};

struct Leftover {
  std::string name;
  bool may_be_new;  // empty: one that is just being made looks the same for a moment
};

// The temporary files that staged files left in `directory` (absolute, not what is
// below it) because they were cut short; those of calls still at work are not among them. None where the
// directory is not there.
std::vector<Leftover> leftovers(const std::filesystem::path& directory);

// Removes them, also when one has just begun to write: that one takes another name.
void remove_leftovers(const std::filesystem::path& directory);

// Whether `path` is a regular file, symbolic links followed. Throws IoError when the system cannot say.
bool is_regular_file(const std::filesystem::path& path);

// The bytes of the open file `fd`, at most `limit` of them: none when it holds more. `name` is for messages.
std::optional<std::string> read_at_most(int fd, std::size_t limit, const std::string& name);

// The bytes of the regular file `path` (absolute), which lies in `directory` or below. A relative symbolic
// link in `directory` is followed; one that leads out of it is refused with Error, whatever is changed
// meanwhile. Throws IoError when the file cannot be read.
std::string read_file_within(const std::filesystem::path& directory, const std::filesystem::path& path);

// The same as text, line ends normalised and a byte order mark at its start left out. Throws Error naming the
// byte when it is not UTF-8.
std::string read_text_file_within(const std::filesystem::path& directory, const std::filesystem::path& path);

// `bytes` as that text; `name` is for messages.
std::string text_of(const std::string& bytes, const std::string& name);

// Throws Error when `text` is not UTF-8: "NAME is not UTF-8: byte 0xFF at offset 12 (line 2)".
void require_utf8(std::string_view text, const std::string& name);

}  // namespace ossilar::utils
