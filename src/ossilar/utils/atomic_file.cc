// The text goes to a temporary file in the target's directory, which is synced and renamed over the target;
// then the directory is synced. Writing in place would leave half a page after a crash. Without the first
// sync a power cut can leave an empty file, as a file system may store the rename before the data. Without
// the second it can bring the old file back.
//
// A temporary file is locked (flock) from its creation until its descriptor is closed: that tells a file at
// work from one that a killed process left. A repair may still remove a file between its creation and its
// locking; the writer sees that the locked file has no name any more and creates another.
//
// Files are addressed by name within an open directory (open_directory() follows no link), so replacing a
// folder on the way by a symbolic link leads no write elsewhere.

#include "ossilar/utils/atomic_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <optional>

#include "ossilar/utils/error.h"
#include "ossilar/utils/file_calls.h"
#include "ossilar/utils/hash.h"

namespace ossilar::utils {
namespace {

constexpr mode_t kFileMode = 0666;  // of a new file; the umask takes away what the user does not grant

constexpr std::string_view kTemporaryStart = ".ossilar-";
constexpr std::string_view kTemporaryEnd = ".tmp";
constexpr std::string_view kFormerEnd = ".former";
// 64 random bits in hexadecimal: nobody can guess the name and put something there first.
constexpr std::size_t kTemporaryDigits = 16;

// Exactly the names that random_name() makes: a repair must not remove a file that only looks similar.
bool is_temporary_name(std::string_view name) {
  return name.size() == kTemporaryStart.size() + kTemporaryDigits + kTemporaryEnd.size() &&
         name.starts_with(kTemporaryStart) && name.ends_with(kTemporaryEnd) &&
         name.substr(kTemporaryStart.size(), kTemporaryDigits).find_first_not_of("0123456789abcdef") ==
             name.npos;
}

// False once the file was unlinked. A failing fstat counts as a name: the rename then fails with a message,
// where creating the file again and again would not end.
bool has_name(int fd) {
  struct stat info {};
  return fstat(fd, &info) != 0 || info.st_nlink > 0;
}

// Calls `each` for every temporary file that no process has locked. The file is locked during the call, so a
// writer that has just created it waits in create(), and then sees whether its file is still there.
template <class Each>
void for_each_leftover(const std::filesystem::path& path, Each each) {
  std::error_code error;
  // Without a directory, or without the right to look at it, nothing was written there either.
  if (!std::filesystem::exists(std::filesystem::symlink_status(path, error))) return;
  const UniqueFd directory = open_directory(path);
  // All names first: whether a listing shows files that are removed meanwhile is not defined (readdir(3)).
  std::vector<std::string> names;
  for (std::filesystem::directory_iterator at(path, error), end; !error && at != end; at.increment(error))
    names.push_back(at->path().filename().string());
  if (error) throw IoError("cannot list " + path.string(), error.value());
  for (const std::string& name : names) {
    if (!is_temporary_name(name)) continue;
    // O_NONBLOCK: a pipe of that name must not block us. A file that cannot be opened is gone or not ours.
    const UniqueFd file(retry_interrupted([&] {
      return openat(directory.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    }));
    struct stat info {};
    if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0) each(directory.get(), Leftover{name, info.st_size == 0});
  }
}

std::string random_name() {
  std::uint64_t number = 0;
  // So few bytes never come in part (getrandom(2)).
  if (retry_interrupted([&] { return getrandom(&number, sizeof number, 0); }) !=
      static_cast<ssize_t>(sizeof number)) {
    throw IoError("cannot get random bytes for a temporary name", errno);
  }
  std::array<char, 40> name{};  // more than the 29 characters and a null
  std::snprintf(name.data(), name.size(), ".ossilar-%016llx.tmp", static_cast<unsigned long long>(number));
  return name.data();
}

// write(2) may take a part: what the disk still has room for. The next call then tells the error.
void write_all(int fd, std::string_view text, const std::filesystem::path& path) {
  while (!text.empty()) {
    const ssize_t written = retry_interrupted([&] { return write(fd, text.data(), text.size()); });
    if (written < 0) throw IoError("cannot write " + path.string(), errno);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

[[noreturn]] void throw_symbolic_link(const std::filesystem::path& path) {
  throw IoError(path.string() + " is a symbolic link; put a regular file in its place or remove it", ELOOP);
}

// The mode of the file that is about to be replaced, or none when there is none. Refuses anything but a
// regular file. It is a look, not a guarantee: the target may change before the rename, which follows no link
// but replaces it; exchange() therefore also looks at what it got back.
std::optional<mode_t> mode_of_target(int directory, const std::string& name,
                                     const std::filesystem::path& path) {
  struct stat info {};
  if (fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return std::nullopt;
    throw IoError("cannot stat " + path.string(), errno);
  }
  if (S_ISLNK(info.st_mode)) throw_symbolic_link(path);
  if (!S_ISREG(info.st_mode)) throw_not_regular(path, info.st_mode);
  return info.st_mode & 07777U;  // without the type of file
}

// A text in a temporary file beside the file that it is to replace. The destructor removes the file, unless
// it was put in its place. Used by one thread.
class StagedFile {
 public:
  enum class Sync { now, later };
  // Creates missing directories. With Sync::later the text is on disk only after sync().
  StagedFile(std::filesystem::path target, std::string_view text, Sync when = Sync::now);
  ~StagedFile();
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  void sync() const { sync_or_throw(fd_.get(), target_); }
  // Replaces the file; on disk with the next sync_directory().
  void place();
  // Replaces the file and keeps it under the name `former`; on disk with the next sync_directory().
  void exchange(const std::string& former);
  void sync_directory() const { sync_or_throw(directory_.get(), target_.parent_path()); }
  FileStamp stamp() const;

 private:
  void create();
  int rename_to(const std::string& name, unsigned flags) const;
  void look_at_former();
  void place_beside(const std::string& former);
  [[noreturn]] void throw_not_placed() const;

  const std::filesystem::path target_;
  const std::string target_name_;
  UniqueFd directory_;
  std::string name_;
  UniqueFd fd_;
};

// A directory that may be searched but not read is opened with O_PATH and cannot be synced. That is found out
// here, before the file is touched.
StagedFile::StagedFile(std::filesystem::path target, std::string_view text, Sync when)
    : target_(std::move(target)),
      target_name_(target_.filename().string()),
      directory_(open_directory(target_.parent_path(), Missing::create)) {
  if ((fcntl(directory_.get(), F_GETFL) & O_PATH) != 0)
    throw IoError("cannot open the directory " + target_.parent_path().string(), EACCES);
  const auto mode = mode_of_target(directory_.get(), target_name_, target_);
  do {
    create();
  } while (!has_name(fd_.get()));
  try {
    // Before the text is written, so a private file has its mode before there is anything to read.
    if (mode && fchmod(fd_.get(), *mode) != 0)
      throw IoError("cannot copy the mode of " + target_.string(), errno);
    write_all(fd_.get(), text, target_);
    if (when == Sync::now) sync();
  } catch (...) {  // no destructor runs for what is not constructed
    unlinkat(directory_.get(), name_.c_str(), 0);
    throw;
  }
}

// A temporary file that cannot be removed stays as a leftover, which `check --fix` removes.
StagedFile::~StagedFile() {
  if (!name_.empty()) unlinkat(directory_.get(), name_.c_str(), 0);
}

// Waits for the lock while a repair has the file; the constructor then checks that it was not removed. That
// locking fails is ignored: where files cannot be locked, for_each_leftover() cannot lock them either, and
// leaves them alone.
void StagedFile::create() {
  name_ = random_name();
  fd_ = UniqueFd(retry_interrupted([&] {
    return openat(directory_.get(), name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                  kFileMode);
  }));
  if (!fd_) throw IoError("cannot create a temporary file next to " + target_.string(), errno);
  retry_interrupted([&] { return flock(fd_.get(), LOCK_EX); });
}

// Of the descriptor, not of the path, where another process may have put its file since. The empty stamp of a
// failure equals that of no existing file, so the caller takes the file for changed and reads it.
FileStamp StagedFile::stamp() const {
  struct stat info {};
  return fstat(fd_.get(), &info) == 0 ? stamp_from(info) : FileStamp{};
}

int StagedFile::rename_to(const std::string& name, unsigned flags) const {
  return renameat2(directory_.get(), name_.c_str(), directory_.get(), name.c_str(), flags);
}

void StagedFile::throw_not_placed() const {
  throw IoError("cannot rename a temporary file to " + target_.string(), errno);
}

void StagedFile::place() {
  if (rename_to(target_name_, 0) != 0) throw_not_placed();
  name_.clear();  // nothing is left to remove
}

// Renames the new text to `former` first and swaps then. Swapping under the temporary name, and renaming the
// old file afterwards, would leave the old text under a name that a repair removes if the process is killed
// in between. RENAME_NOREPLACE refuses to overwrite a former file that nobody has looked at. EINVAL says that
// the file system does not know these flags.
void StagedFile::exchange(const std::string& former) {
  // Another try means that the file appeared or vanished between the look and the rename. The limit keeps a
  // program that does so in a loop from holding up a save, which has the write lock.
  constexpr int kMostTries = 16;
  if (rename_to(former, RENAME_NOREPLACE) != 0) {
    if (errno == EINVAL) return place_beside(former);
    throw IoError("cannot create " + former + " next to " + target_.string(), errno);
  }
  name_ = former;
  for (int tries = 0; tries < kMostTries; ++tries) {
    const bool is_there = mode_of_target(directory_.get(), target_name_, target_).has_value();
    if (rename_to(target_name_, is_there ? RENAME_EXCHANGE : RENAME_NOREPLACE) == 0)
      return is_there ? look_at_former() : name_.clear();
    if (errno == EINVAL) return place_beside(former);
    if (errno != ENOENT && errno != EEXIST) break;
  }
  throw_not_placed();
}

// A link or a pipe that came to the target between the look and the swap is swapped back, and the write fails
// as it does when the look finds one.
void StagedFile::look_at_former() {
  try {
    mode_of_target(directory_.get(), name_, target_);
  } catch (const IoError&) {
    if (rename_to(target_name_, RENAME_EXCHANGE) != 0) name_.clear();  // `former` is still theirs
    throw;
  }
  name_.clear();
}

// For file systems that cannot swap. A second name keeps the old file itself, also what an editor that has it
// open writes later; a copy, where there are no hard links, does not. ENOENT: there is no old file to keep.
void StagedFile::place_beside(const std::string& former) {
  if (name_ == former) {  // the new text got it before the swap was refused; now the old file needs it
    const std::string name = random_name();
    if (rename_to(name, 0) != 0) throw_not_placed();
    name_ = name;
  }
  const std::filesystem::path beside = target_.parent_path() / former;
  const int linked = linkat(directory_.get(), target_name_.c_str(), directory_.get(), former.c_str(), 0);
  if (linked != 0 && errno != ENOENT) {
    // Before the copy, which would overwrite a former file.
    if (errno == EEXIST) throw IoError("cannot create " + former + " next to " + target_.string(), EEXIST);
    atomic_write(beside, read_file_within(target_.parent_path(), target_));
  }
  place();
}

}  // namespace

FileStamp atomic_write(const std::filesystem::path& path, std::string_view text) {
  StagedFile file(path, text);
  file.place();
  file.sync_directory();
  return file.stamp();
}

// Three passes: write all, sync all, rename all. What can fail for want of space is done before the first
// file is replaced.
std::vector<FileStamp> atomic_write_all(const std::filesystem::path& directory,
                                        const std::vector<NamedText>& files) {
  std::deque<StagedFile> staged;  // which does not move its elements; a StagedFile cannot be moved
  for (const auto& [name, text] : files) staged.emplace_back(directory / name, text, StagedFile::Sync::later);
  for (StagedFile& file : staged) file.sync();
  std::vector<FileStamp> stamps;
  for (StagedFile& file : staged) {
    file.place();
    stamps.push_back(file.stamp());
  }
  if (!staged.empty()) staged.front().sync_directory();
  return stamps;
}

FileStamp atomic_exchange(const std::filesystem::path& path, std::string_view text) {
  StagedFile file(path, text);
  file.exchange(former_file(path).filename().string());
  file.sync_directory();
  return file.stamp();
}

// A hash of the name, as the name with a suffix might exceed the 255 bytes that a file's name may have.
std::filesystem::path former_file(const std::filesystem::path& path) {
  const std::string digits = sha256_hex(path.filename().string()).substr(0, kTemporaryDigits);
  return path.parent_path() / (std::string(kTemporaryStart) + digits + std::string(kFormerEnd));
}

// The directory that gets the name is synced first: a power cut between the two may leave both names, never
// none.
bool move_file(const std::filesystem::path& from, const std::filesystem::path& to) {
  const UniqueFd source = open_directory(from.parent_path());
  const UniqueFd target = open_directory(to.parent_path(), Missing::create);
  const std::string old_name = from.filename().string();
  const std::string new_name = to.filename().string();
  if (renameat2(source.get(), old_name.c_str(), target.get(), new_name.c_str(), RENAME_NOREPLACE) != 0) {
    // EINVAL: this file system does not know RENAME_NOREPLACE.
    if (errno == EXDEV || errno == EEXIST || errno == EINVAL) return false;
    throw IoError("cannot move " + from.string() + " to " + to.string(), errno);
  }
  sync_or_throw(target.get(), to.parent_path());
  sync_or_throw(source.get(), from.parent_path());
  return true;
}

std::vector<Leftover> leftovers(const std::filesystem::path& directory) {
  std::vector<Leftover> left;
  for_each_leftover(directory, [&](int, Leftover file) { left.push_back(std::move(file)); });
  return left;
}

void remove_leftovers(const std::filesystem::path& directory) {
  for_each_leftover(directory, [&](int opened, const Leftover& file) {
    // Gone meanwhile: its writer placed it, or somebody else tidied up.
    if (unlinkat(opened, file.name.c_str(), 0) != 0 && errno != ENOENT) {
      throw IoError("cannot remove " + (directory / file.name).string(), errno);
    }
  });
}

}  // namespace ossilar::utils
