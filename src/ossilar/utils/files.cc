#include "ossilar/utils/files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>

#include "ossilar/utils/error.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"

namespace ossilar::utils {
namespace {

constexpr mode_t kDirectoryMode = 0777;  // the umask takes away what the user wants taken away
constexpr mode_t kFileMode = 0666;
constexpr std::size_t kReadStep = std::size_t{64} * 1024;
constexpr std::size_t kNextStep = std::size_t{4} * 1024;

template <class Call>
auto retry_interrupted(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

// A failed sync is never tried again: the kernel may have dropped the pages and would report success.
void sync_or_throw(int fd, const std::filesystem::path& path) {
  if (fsync(fd) != 0) throw IoError("cannot sync " + path.string() + " to disk", errno);
}

UniqueFd open_child_directory(int parent, const std::string& name, const std::filesystem::path& so_far) {
  const int fd = retry_interrupted(
      [&] { return openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
  if (fd >= 0) return UniqueFd(fd);
  const int error = errno;
  struct stat info {};
  if (error == ENOTDIR && fstatat(parent, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISLNK(info.st_mode)) {
    throw IoError(so_far.string() + " is a symbolic link, and ossilar writes through none", ELOOP);
  }
  // A directory that may be searched but not read still serves as a step on the way.
  if (error == EACCES) {
    const int step = openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (step >= 0) return UniqueFd(step);
  }
  throw IoError("cannot open the directory " + so_far.string(), error);
}

// Calls openat2(2) and gives -1 with errno as that does. A kernel that knows no such call says ENOSYS, and a
// sandbox that forbids it EPERM.
int open_resolved(int directory, const char* path, std::uint64_t flags, std::uint64_t resolve) {
  open_how how{};
  how.flags = flags;
  how.resolve = resolve;
  for (;;) {
    const auto fd = static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof how));
    if (fd >= 0 || (errno != EINTR && errno != EAGAIN)) return fd;
  }
}

// Nothing when the path leads over a link, and when it cannot be opened at all.
UniqueFd open_directory_along_no_link(const std::filesystem::path& path) {
  if (!path.is_absolute()) return {};
  return UniqueFd(
      open_resolved(AT_FDCWD, path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, RESOLVE_NO_SYMLINKS));
}

void create_child_directory(int parent, const std::string& name, const std::filesystem::path& so_far) {
  if (mkdirat(parent, name.c_str(), kDirectoryMode) == 0) {
    sync_or_throw(parent, so_far.parent_path());
  } else if (errno != EEXIST) {
    throw IoError("cannot create the directory " + so_far.string(), errno);
  }
}

constexpr std::string_view kTemporaryStart = ".ossilar-";
constexpr std::string_view kTemporaryEnd = ".tmp";
constexpr std::string_view kFormerEnd = ".former";
constexpr std::size_t kTemporaryDigits = 16;

bool is_temporary_name(std::string_view name) {
  return name.size() == kTemporaryStart.size() + kTemporaryDigits + kTemporaryEnd.size() &&
         name.starts_with(kTemporaryStart) && name.ends_with(kTemporaryEnd) &&
         name.substr(kTemporaryStart.size(), kTemporaryDigits).find_first_not_of("0123456789abcdef") ==
             name.npos;
}

bool has_name(int fd) {
  struct stat info {};
  return fstat(fd, &info) != 0 || info.st_nlink > 0;
}

// Calls `each` with each temporary file that nobody writes any more, which stays locked meanwhile.
template <class Each>
void for_each_leftover(const std::filesystem::path& path, Each each) {
  std::error_code error;
  if (!std::filesystem::exists(std::filesystem::symlink_status(path, error))) return;
  const UniqueFd directory = open_directory(path);
  std::vector<std::string> names;
  for (std::filesystem::directory_iterator at(path, error), end; !error && at != end; at.increment(error))
    names.push_back(at->path().filename().string());
  if (error) throw IoError("cannot list " + path.string(), error.value());
  for (const std::string& name : names) {
    if (!is_temporary_name(name)) continue;
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
  if (retry_interrupted([&] { return getrandom(&number, sizeof number, 0); }) !=
      static_cast<ssize_t>(sizeof number)) {
    throw IoError("cannot get random bytes for a temporary name", errno);
  }
  std::array<char, 40> name{};
  std::snprintf(name.data(), name.size(), ".ossilar-%016llx.tmp", static_cast<unsigned long long>(number));
  return name.data();
}

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

[[noreturn]] void throw_not_regular(const std::filesystem::path& path, mode_t mode) {
  throw IoError(path.string() + " is not a regular file; move it away", S_ISDIR(mode) ? EISDIR : EINVAL);
}

// The mode of the file that is about to be replaced, or none when there is none. Refuses what is no regular
// file.
std::optional<mode_t> mode_of_target(int directory, const std::string& name,
                                     const std::filesystem::path& path) {
  struct stat info {};
  if (fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return std::nullopt;
    throw IoError("cannot look at " + path.string(), errno);
  }
  if (S_ISLNK(info.st_mode)) throw_symbolic_link(path);
  if (!S_ISREG(info.st_mode)) throw_not_regular(path, info.st_mode);
  return info.st_mode & 07777U;
}

FileStamp stamp_from(const struct stat& info) {
  return {.device = info.st_dev,
          .inode = info.st_ino,
          .size = static_cast<std::uint64_t>(info.st_size),
          .modified = std::int64_t{info.st_mtim.tv_sec} * 1'000'000'000 + info.st_mtim.tv_nsec};
}

// A text on disk beside the file that it is to replace, under a name that nobody can foresee; gone at the end
// unless it was placed.
class StagedFile {
 public:
  enum class Sync { now, later };
  // Makes missing directories. With Sync::later the text is on disk only after sync().
  StagedFile(std::filesystem::path target, std::string_view text, Sync when = Sync::now);
  ~StagedFile();
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  void sync() const { sync_or_throw(fd_.get(), target_); }
  // Takes the place of the file; on disk with the next sync of the directory.
  void place();
  // Swaps places with the file, which then has the name `former`.
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

constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;

// Opens a file below `directory` for reading, along no link at all.
int open_along_no_link(int directory, const std::filesystem::path& below) {
  UniqueFd step;
  for (const auto& part : below.parent_path()) {
    const int from = step ? step.get() : directory;
    step = UniqueFd(openat(from, part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!step) return -1;
  }
  return openat(step ? step.get() : directory, below.filename().c_str(), kReadFlags | O_NOFOLLOW);
}

bool is_within(const std::filesystem::path& directory, const std::filesystem::path& path) {
  const auto relative = path.lexically_normal().lexically_relative(directory.lexically_normal());
  return !relative.empty() && *relative.begin() != "..";
}

// Opens a file for reading without leaving `directory`. Where openat2(2) is not to be had it follows no link.
int open_beneath(int directory, const std::filesystem::path& below) {
  const int fd = open_resolved(directory, below.c_str(), kReadFlags, RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS);
  const bool is_unknown = fd < 0 && (errno == ENOSYS || errno == EPERM);
  return is_unknown ? open_along_no_link(directory, below) : fd;
}

std::filesystem::path below(const std::filesystem::path& directory, const std::filesystem::path& path) {
  return path.lexically_normal().lexically_relative(directory.lexically_normal());
}

// The kernel refuses every absolute link (EXDEV), also one that leads back in: that one is opened by where it
// leads, without a link on the way, so nothing that is changed meanwhile leads out.
int open_within(int opened, const std::filesystem::path& directory, const std::filesystem::path& path) {
  const int fd = open_beneath(opened, below(directory, path));
  if (fd >= 0 || errno != EXDEV) return fd;
  std::error_code error;
  const auto real_directory = std::filesystem::canonical(directory, error);
  const auto real = error ? std::filesystem::path() : std::filesystem::canonical(path, error);
  errno = EXDEV;
  if (error || !is_within(real_directory, real)) return -1;
  return open_along_no_link(opened, below(real_directory, real));
}

// Without the right to read a directory it cannot be synced: to be found out before anything is changed.
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
    if (mode && fchmod(fd_.get(), *mode) != 0)
      throw IoError("cannot keep the mode of " + target_.string(), errno);
    write_all(fd_.get(), text, target_);
    if (when == Sync::now) sync();
  } catch (...) {
    unlinkat(directory_.get(), name_.c_str(), 0);
    throw;
  }
}

StagedFile::~StagedFile() {
  if (!name_.empty()) unlinkat(directory_.get(), name_.c_str(), 0);
}

// The lock tells a file at work from one that was left. Who tidies up may come before it and remove the file.
void StagedFile::create() {
  name_ = random_name();
  fd_ = UniqueFd(retry_interrupted([&] {
    return openat(directory_.get(), name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                  kFileMode);
  }));
  if (!fd_) throw IoError("cannot create a file beside " + target_.string(), errno);
  retry_interrupted([&] { return flock(fd_.get(), LOCK_EX); });
}

FileStamp StagedFile::stamp() const {
  struct stat info {};
  return fstat(fd_.get(), &info) == 0 ? stamp_from(info) : FileStamp{};
}

int StagedFile::rename_to(const std::string& name, unsigned flags) const {
  return renameat2(directory_.get(), name_.c_str(), directory_.get(), name.c_str(), flags);
}

void StagedFile::throw_not_placed() const {
  throw IoError("cannot put the new " + target_.string() + " in place", errno);
}

void StagedFile::place() {
  if (rename_to(target_name_, 0) != 0) throw_not_placed();
  name_.clear();
}

// It takes the former file's name before the swap, so that the file that comes back has it from the first
// moment on: killed in between, nobody takes that file for a temporary one. A file that comes or goes between
// two calls makes it look again.
void StagedFile::exchange(const std::string& former) {
  constexpr int kMostTries = 16;
  if (rename_to(former, RENAME_NOREPLACE) != 0) {
    if (errno == EINVAL) return place_beside(former);
    throw IoError("cannot put " + former + " beside " + target_.string(), errno);
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

// A link or a pipe that a hand put there between the look and the swap goes back.
void StagedFile::look_at_former() {
  try {
    mode_of_target(directory_.get(), name_, target_);
  } catch (const IoError&) {
    if (rename_to(target_name_, RENAME_EXCHANGE) != 0) name_.clear();  // it is not ours to remove
    throw;
  }
  name_.clear();
}

// Where there are no second names either, the old file is copied.
void StagedFile::place_beside(const std::string& former) {
  if (name_ == former) {  // which is the old file's now
    const std::string name = random_name();
    if (rename_to(name, 0) != 0) throw_not_placed();
    name_ = name;
  }
  const std::filesystem::path beside = target_.parent_path() / former;
  const int linked = linkat(directory_.get(), target_name_.c_str(), directory_.get(), former.c_str(), 0);
  if (linked != 0 && errno != ENOENT) {
    if (errno == EEXIST) throw IoError("cannot put " + former + " beside " + target_.string(), EEXIST);
    atomic_write(beside, read_file_within(target_.parent_path(), target_));
  }
  place();
}

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

UniqueFd::~UniqueFd() {
  if (fd_ >= 0) close(fd_);
}

// In one call where that succeeds; the way along the path finds out why it does not.
UniqueFd open_directory(const std::filesystem::path& path, Missing missing) {
  const std::filesystem::path whole = path.lexically_normal();
  if (UniqueFd opened = open_directory_along_no_link(whole)) return opened;
  UniqueFd directory(retry_interrupted([] { return open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!directory) throw IoError("cannot open the directory /", errno);
  std::filesystem::path so_far = "/";
  for (const auto& part : whole.relative_path()) {
    if (part.empty()) continue;  // a trailing slash
    so_far /= part;
    try {
      directory = open_child_directory(directory.get(), part.string(), so_far);
    } catch (const IoError& error) {
      if (error.error() != ENOENT || missing == Missing::fail) throw;
      create_child_directory(directory.get(), part.string(), so_far);
      directory = open_child_directory(directory.get(), part.string(), so_far);
    }
  }
  return directory;
}

FileStamp atomic_write(const std::filesystem::path& path, std::string_view text) {
  StagedFile file(path, text);
  file.place();
  file.sync_directory();
  return file.stamp();
}

std::vector<FileStamp> atomic_write_all(const std::filesystem::path& directory,
                                        const std::vector<NamedText>& files) {
  std::deque<StagedFile> staged;
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

// By a hash of the name: one that is made longer might be too long.
std::filesystem::path former_file(const std::filesystem::path& path) {
  const std::string digits = sha256_hex(path.filename().string()).substr(0, kTemporaryDigits);
  return path.parent_path() / (std::string(kTemporaryStart) + digits + std::string(kFormerEnd));
}

// A read lease is refused while anybody has the file open for writing (fcntl(2), F_SETLEASE). Whoever opens
// it while the lease is held makes the kernel send a signal: one that is ignored by default.
bool is_open_for_writing(int fd) {
  if (fcntl(fd, F_SETSIG, SIGURG) != 0) return false;
  if (fcntl(fd, F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN || errno == EACCES;
  fcntl(fd, F_SETLEASE, F_UNLCK);
  return false;
}

bool move_file(const std::filesystem::path& from, const std::filesystem::path& to) {
  const UniqueFd source = open_directory(from.parent_path());
  const UniqueFd target = open_directory(to.parent_path(), Missing::create);
  const std::string old_name = from.filename().string();
  const std::string new_name = to.filename().string();
  if (renameat2(source.get(), old_name.c_str(), target.get(), new_name.c_str(), RENAME_NOREPLACE) != 0) {
    if (errno == EXDEV || errno == EEXIST || errno == EINVAL) return false;
    throw IoError("cannot move " + from.string() + " to " + to.string(), errno);
  }
  sync_or_throw(target.get(), to.parent_path());
  return true;
}

std::vector<Leftover> leftovers(const std::filesystem::path& directory) {
  std::vector<Leftover> left;
  for_each_leftover(directory, [&](int, Leftover file) { left.push_back(std::move(file)); });
  return left;
}

void remove_leftovers(const std::filesystem::path& directory) {
  for_each_leftover(directory, [&](int opened, const Leftover& file) {
    if (unlinkat(opened, file.name.c_str(), 0) != 0) {
      throw IoError("cannot remove " + (directory / file.name).string(), errno);
    }
  });
}

FileStamp stamp_of(const std::filesystem::path& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? stamp_from(info) : FileStamp{};
}

bool is_regular_file(const std::filesystem::path& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) == 0) return S_ISREG(info.st_mode);
  if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG) return false;
  throw IoError("cannot look at " + path.string(), errno);
}

std::optional<std::string> read_at_most(int fd, std::size_t limit, const std::string& name) {
  // A regular file is had in one read, and the next finds its end.
  struct stat info {};
  const bool has_size = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0;
  std::size_t step = has_size ? std::min(static_cast<std::size_t>(info.st_size), limit) + 1 : kReadStep;
  std::string text;
  for (;;) {
    const std::size_t before = text.size();
    text.resize(before + step);
    const ssize_t got = retry_interrupted([&] { return read(fd, text.data() + before, step); });
    if (got < 0) throw IoError("cannot read " + name, errno);
    text.resize(before + static_cast<std::size_t>(got));
    if (has_size) step = kNextStep;  // it has grown, or this read finds its end
    if (text.size() > limit) return std::nullopt;
    if (got == 0) return text;
  }
}

std::string read_file_within(const std::filesystem::path& directory, const std::filesystem::path& path) {
  if (!is_within(directory, path)) throw Error(path.string() + " lies outside " + directory.string());
  const UniqueFd folder = open_directory(directory);
  const UniqueFd file(open_within(folder.get(), directory, path));
  if (!file && errno == EXDEV) {
    throw Error(path.string() + " is a symbolic link that leads out of " + directory.string() +
                "; put a regular file in its place or remove it");
  }
  if (!file) throw IoError("cannot open " + path.string(), errno);
  struct stat info {};
  if (fstat(file.get(), &info) != 0) throw IoError("cannot look at " + path.string(), errno);
  if (!S_ISREG(info.st_mode)) throw_not_regular(path, info.st_mode);
  return read_at_most(file.get(), std::string::npos, path.string()).value_or("");
}

std::string read_text_file_within(const std::filesystem::path& directory, const std::filesystem::path& path,
                                  ByteOrderMark mark) {
  return text_of(read_file_within(directory, path), path.string(), mark);
}

std::string text_of(const std::string& bytes, const std::string& name, ByteOrderMark mark) {
  require_utf8(bytes, name);
  return normalise_line_ends(mark == ByteOrderMark::dropped ? without_byte_order_mark(bytes) : bytes);
}

void require_utf8(std::string_view text, const std::string& name) {
  const auto at = first_invalid_utf8(text);
  if (!at) return;
  std::array<char, 8> byte{};
  std::snprintf(byte.data(), byte.size(), "0x%02X",
                static_cast<unsigned>(static_cast<std::uint8_t>(text[*at])));
  throw Error(name + " is not UTF-8: byte " + byte.data() + " at offset " + std::to_string(*at) + " (line " +
              std::to_string(count_lines(text.substr(0, *at)) + (*at == 0 || text[*at - 1] == '\n' ? 1 : 0)) +
              ")");
}

}  // namespace ossilar::utils
