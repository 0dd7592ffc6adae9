// The repository is written by others, so any component of a path may be a symbolic link, or become one
// between two calls. Looking first (lstat) and opening then leaves a gap in which a link can be put there. So
// the kernel refuses links while it resolves the path: in one openat2(2) call (Linux 5.6), or, where that
// call is missing or forbidden, one component at a time from descriptor to descriptor with O_NOFOLLOW.
//
// A file to be read is opened with O_NONBLOCK, as a pipe in its place must not block us, and judged by
// fstat() on the descriptor, as the path may name another file by now.

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

constexpr mode_t kDirectoryMode = 0777;  // the umask takes away what the user does not grant
// For what has no size: as much as a pipe holds on Linux by default.
constexpr std::size_t kReadStep = std::size_t{64} * 1024;
// For the read that only finds the end of a file: a page, so that no large buffer is cleared for nothing.
constexpr std::size_t kNextStep = std::size_t{4} * 1024;

UniqueFd open_child_directory(int parent, const std::string& name, const std::filesystem::path& so_far) {
  const int fd = retry_interrupted(
      [&] { return openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
  if (fd >= 0) return UniqueFd(fd);
  const int error = errno;
  struct stat info {};
  // With O_DIRECTORY the kernel says ENOTDIR for a link, too. A second look makes the message name the link.
  if (error == ENOTDIR && fstatat(parent, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISLNK(info.st_mode)) {
    throw IoError(so_far.string() + " is a symbolic link; put a directory in its place", ELOOP);
  }
  // A directory that may be searched but not read still serves as a step on the way.
  if (error == EACCES) {
    const int step = openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (step >= 0) return UniqueFd(step);
  }
  throw IoError("cannot open the directory " + so_far.string(), error);
}

// Calls openat2(2), for which the C library has no wrapper, and returns what it returns: -1 with ENOSYS from
// a kernel without the call, with EPERM from a sandbox that forbids it. EAGAIN: files were renamed meanwhile,
// and the kernel could not make sure that a `..` does not lead out; it asks for another try.
int open_resolved(int directory, const char* path, std::uint64_t flags, std::uint64_t resolve) {
  open_how how{};
  how.flags = flags;
  how.resolve = resolve;
  for (;;) {
    const auto fd = static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof how));
    if (fd >= 0 || (errno != EINTR && errno != EAGAIN)) return fd;
  }
}

// The directory in one call, instead of one for each component. Nothing if there is a link on the way or the
// directory cannot be opened for another reason; open_directory() then finds out which.
UniqueFd open_directory_along_no_link(const std::filesystem::path& path) {
  if (!path.is_absolute()) return {};
  return UniqueFd(
      open_resolved(AT_FDCWD, path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, RESOLVE_NO_SYMLINKS));
}

// The parent is synced, or the new directory with all that is written to it could be gone after a power cut.
// EEXIST: another process created it since, and syncs its name as we would.
void create_child_directory(int parent, const std::string& name, const std::filesystem::path& so_far) {
  if (mkdirat(parent, name.c_str(), kDirectoryMode) == 0) {
    sync_or_throw(parent, so_far.parent_path());
  } else if (errno != EEXIST) {
    throw IoError("cannot create the directory " + so_far.string(), errno);
  }
}

constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;

// Opens a file below `directory` for reading and follows no link at all. `below` has no `..`. O_PATH for the
// folders on the way, as they need the right to be searched only.
int open_along_no_link(int directory, const std::filesystem::path& below) {
  UniqueFd step;
  for (const auto& part : below.parent_path()) {
    const int from = step ? step.get() : directory;
    step = UniqueFd(openat(from, part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!step) return -1;
  }
  return openat(step ? step.get() : directory, below.filename().c_str(), kReadFlags | O_NOFOLLOW);
}

// Compares the paths as text; the opening deals with links.
bool is_within(const std::filesystem::path& directory, const std::filesystem::path& path) {
  const auto relative = path.lexically_normal().lexically_relative(directory.lexically_normal());
  return !relative.empty() && *relative.begin() != "..";
}

// Opens a file for reading without leaving `directory`; without openat2(2), by following no link at all.
// RESOLVE_NO_MAGICLINKS: a link in /proc/PID/fd jumps to a file without resolving a path.
int open_beneath(int directory, const std::filesystem::path& below) {
  const int fd = open_resolved(directory, below.c_str(), kReadFlags, RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS);
  const bool is_unknown = fd < 0 && (errno == ENOSYS || errno == EPERM);
  return is_unknown ? open_along_no_link(directory, below) : fd;
}

// `path` as seen from `directory`, which contains it.
std::filesystem::path below(const std::filesystem::path& directory, const std::filesystem::path& path) {
  return path.lexically_normal().lexically_relative(directory.lexically_normal());
}

// With RESOLVE_BENEATH the kernel refuses every absolute link (EXDEV), even one that leads back into the
// directory. Such a link is resolved here, and the file that it leads to is opened without following any
// link: if something on that way becomes a link meanwhile, the file is refused.
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

// What this owned is closed when `other` is destroyed: at once, when a temporary is assigned.
UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

UniqueFd::~UniqueFd() {
  if (fd_ >= 0) close(fd_);
}

// First in one call. If that fails, the walk along the path finds the component that is at fault, for the
// message, or creates what is missing.
UniqueFd open_directory(const std::filesystem::path& path, Missing missing) {
  const std::filesystem::path whole = path.lexically_normal();
  if (UniqueFd opened = open_directory_along_no_link(whole)) return opened;
  UniqueFd directory(retry_interrupted([] { return open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!directory) throw IoError("cannot open the directory /", errno);
  std::filesystem::path so_far = "/";
  for (const auto& part : whole.relative_path()) {
    if (part.empty()) continue;  // after a trailing slash
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

// Asks for a read lease, which the kernel refuses while any process has the file open for writing (fcntl(2),
// F_SETLEASE), and gives it back at once. If a process opens the file for writing in between, the kernel
// sends us a signal: by default SIGIO, which would end this process, so here SIGURG, which is ignored by
// default.
//
// EAGAIN: somebody writes. EACCES: another user's file, so assume that somebody does. Any other error: no
// leases here. A lease that cannot be given back ends with the descriptor.
bool is_open_for_writing(int fd) {
  if (fcntl(fd, F_SETSIG, SIGURG) != 0) return false;
  if (fcntl(fd, F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN || errno == EACCES;
  fcntl(fd, F_SETLEASE, F_UNLCK);
  return false;
}

bool is_there(const std::filesystem::path& path) {
  std::error_code unknown;
  return std::filesystem::symlink_status(path, unknown).type() != std::filesystem::file_type::not_found;
}

bool is_regular_file(const std::filesystem::path& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) == 0) return S_ISREG(info.st_mode);
  if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG) return false;
  throw IoError("cannot stat " + path.string(), errno);
}

std::optional<std::string> read_at_most(int fd, std::size_t limit, const std::string& name) {
  // One read takes a whole regular file, the next finds its end. With the extra byte a file that exceeds
  // `limit` is noticed by the first read.
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
    if (has_size) step = kNextStep;  // what comes now is the end, or what was appended since
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
  if (fstat(file.get(), &info) != 0) throw IoError("cannot stat " + path.string(), errno);
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
  // count_lines() counts the unfinished line that the byte is in, unless the byte is the first of its line.
  std::array<char, 8> byte{};  // "0xFF" and a null
  std::snprintf(byte.data(), byte.size(), "0x%02X",
                static_cast<unsigned>(static_cast<std::uint8_t>(text[*at])));
  throw Error(name + " is not UTF-8: byte " + byte.data() + " at offset " + std::to_string(*at) + " (line " +
              std::to_string(count_lines(text.substr(0, *at)) + (*at == 0 || text[*at - 1] == '\n' ? 1 : 0)) +
              ")");
}

}  // namespace ossilar::utils
