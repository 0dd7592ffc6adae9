#include "ossilar/utils/files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>

#include "ossilar/utils/error.h"
#include "ossilar/utils/file_calls.h"
#include "ossilar/utils/text.h"

namespace ossilar::utils {
namespace {

constexpr mode_t kDirectoryMode = 0777;  // the umask takes away what the user wants taken away
constexpr std::size_t kReadStep = std::size_t{64} * 1024;
constexpr std::size_t kNextStep = std::size_t{4} * 1024;

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
