// Paths are walked part by part with openat(2) and O_NOFOLLOW, starting at a descriptor of the root. To open
// ROOT/PATH in one call would follow a symbolic link at any part, and to check the path first would leave a
// moment in which a link can be put there.
//
// A walk from the root for each file would cost a call for each folder above it. So Tree keeps the folders on
// the way to the last one open: paths come in order, and neighbours mostly share their folder. The invariant
// of enter(): each step is an open folder whose path is a prefix of folder_, also after a failure.
#include "ossilar/source/file_reader.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "ossilar/utils/error.h"
#include "ossilar/utils/file_calls.h"

namespace ossilar::source {
namespace {

// O_NOFOLLOW: a link swapped in must not be followed. O_NONBLOCK: a pipe swapped in must not block us.
// O_NOCTTY: a terminal must not become our controlling terminal.
constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
// O_PATH: a folder on the way need only be searchable, not readable.
constexpr int kStepFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// Descriptors that a tree keeps open, beside the root's: the outermost fifteen folders of a path, and the
// folder itself. A deep tree must not use up the descriptors of the process; beyond this depth a change of
// folder costs calls instead.
constexpr std::size_t kMostKeptSteps = 16;

std::int64_t nanoseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

Stamp stamp_of(const struct stat& info) {
  return {.size = static_cast<std::uint64_t>(info.st_size),
          .modified = nanoseconds(info.st_mtim),
          .changed = nanoseconds(info.st_ctim),
          .inode = info.st_ino,
          .device = info.st_dev};
}

FileKind kind_of(const struct stat& info) {
  if (S_ISLNK(info.st_mode)) return FileKind::symlink;
  if (!S_ISREG(info.st_mode)) return FileKind::special;
  return static_cast<std::uint64_t>(info.st_size) > kLargestFile ? FileKind::large : FileKind::text;
}

// No such file below the root. ENOTDIR and ELOOP: a file or a link is where a folder was, or a link where the
// file was. ENAMETOOLONG: git may track names that this file system cannot hold.
bool is_absent(int error) {
  return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

// Being out of descriptors or memory says nothing about the file, so it must not enter an index as
// unreadable.
void throw_if_exhausted(int error, const std::filesystem::path& path) {
  if (is_exhaustion(error)) throw utils::IoError("cannot stat " + path.string(), error);
}

// What git would check out. ".git" is refused as no file of it may be taken for a source, and NUL as the
// system's calls would cut the name there.
bool is_clean_part(std::string_view part) {
  return !part.empty() && part != "." && part != ".." && part != ".git" &&
         part.find('\0') == std::string_view::npos;
}

bool is_clean_path(std::string_view path) {
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    if (!is_clean_part(path.substr(begin, end - begin))) return false;
    begin = end + 1;
  }
  return true;
}

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

// Some file systems do not tell the type while listing (DT_UNKNOWN). An entry that cannot be looked at counts
// as a file; the look at it will say what is wrong.
bool is_directory(int parent, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
  struct stat info {};
  return fstatat(parent, entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
}

// Reads the open regular file `fd`, whose metadata was `before`. The file may grow, shrink or be written
// meanwhile: the limit holds while reading, and only equal stamps on both sides of it make the reading
// steady.
Reading read_open_file(int fd, const struct stat& before, const std::string& name) {
  Reading reading{.kind = kind_of(before), .stamp = stamp_of(before), .content = {}};
  if (reading.kind == FileKind::large) return reading;
  auto content = utils::read_at_most(fd, kLargestFile, name);
  struct stat after {};
  if (fstat(fd, &after) != 0) throw utils::IoError("cannot stat " + name, errno);
  if (!content) return {.kind = FileKind::large, .stamp = stamp_of(after), .content = {}};
  reading.is_steady = stamp_of(after) == reading.stamp && content->size() == reading.stamp.size;
  if (content->find('\0') != std::string::npos) reading.kind = FileKind::binary;
  reading.content = *std::move(content);
  return reading;
}

}  // namespace

bool is_exhaustion(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

Tree::Tree(std::filesystem::path root) : root_(std::move(root)), root_fd_(utils::open_directory(root_)) {}

// A descriptor of `folder`, owned by the tree and valid until the next call, or -1 with errno set.
int Tree::enter(std::string_view folder) {
  if (folder.empty()) return root_fd_.get();
  const auto leads_to_folder = [&](const Step& step) {
    return folder.substr(0, step.end) == std::string_view(folder_).substr(0, step.end) &&
           (folder.size() == step.end || (folder.size() > step.end && folder[step.end] == '/'));
  };
  while (!steps_.empty() && !leads_to_folder(steps_.back())) steps_.pop_back();
  folder_ = folder;
  for (std::size_t at = reached(); at < folder.size(); at = reached()) {
    const std::size_t begin = at == 0 ? 0 : at + 1;
    const std::size_t end = std::min(folder.find('/', begin), folder.size());
    const std::string part(folder.substr(begin, end - begin));
    const int parent = steps_.empty() ? root_fd_.get() : steps_.back().fd.get();
    utils::UniqueFd next(utils::retry_interrupted([&] { return openat(parent, part.c_str(), kStepFlags); }));
    if (!next) return -1;
    if (steps_.size() == kMostKeptSteps) steps_.pop_back();
    steps_.push_back({end, std::move(next)});
  }
  return steps_.back().fd.get();
}

// The length of the part of folder_ that the last step leads to.
std::size_t Tree::reached() const { return steps_.empty() ? 0 : steps_.back().end; }

// Enters the folder of `path` and sets `name` to its last part. A path that is not clean is as good as
// absent.
int Tree::enter_parent(const std::string& path, std::string& name) {
  errno = ENOENT;
  if (!is_clean_path(path)) return -1;
  const std::size_t slash = path.rfind('/');
  name = path.substr(slash + 1);
  return enter(std::string_view(path).substr(0, slash == std::string::npos ? 0 : slash));
}

std::optional<Look> Tree::look(const std::string& path) {
  std::string name;
  struct stat info {};
  const int parent = enter_parent(path, name);
  // errno is that of the call which failed; enter_parent() sets it for a path that is not clean, too.
  if (parent < 0 || fstatat(parent, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    if (is_absent(errno)) return std::nullopt;
    throw_if_exhausted(errno, root_ / path);
    return Look{.kind = FileKind::unreadable, .error = errno, .stamp = {}};
  }
  return Look{
      .kind = kind_of(info), .is_directory = S_ISDIR(info.st_mode), .error = 0, .stamp = stamp_of(info)};
}

std::optional<Reading> Tree::read(const std::string& path) {
  // Looked at first, because opening a device may already do something. What is swapped in after the look is
  // refused by the flags and by fstat() below.
  const auto look = this->look(path);
  if (!look || look->is_directory) return std::nullopt;
  if (look->kind != FileKind::text)
    return Reading{.kind = look->kind, .stamp = look->stamp, .error = look->error, .content = {}};
  std::string name;
  const int parent = enter_parent(path, name);
  if (parent < 0) return std::nullopt;
  const utils::UniqueFd file(
      utils::retry_interrupted([&] { return openat(parent, name.c_str(), kReadFlags); }));
  if (!file) {
    if (is_absent(errno)) return std::nullopt;
    throw_if_exhausted(errno, root_ / path);
    return Reading{.kind = FileKind::unreadable, .stamp = {}, .error = errno, .content = {}};
  }
  struct stat info {};
  if (fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  try {
    return read_open_file(file.get(), info, (root_ / path).string());
  } catch (const utils::IoError& error) {
    // One bad file must not fail the refresh of all; the error goes with it, and a refresh logs it.
    return Reading{.kind = FileKind::unreadable, .stamp = {}, .error = error.error(), .content = {}};
  }
}

std::vector<DirectoryEntry> Tree::list(const std::string& folder) {
  const std::string where = (root_ / folder).string();
  const int step = enter(folder);
  // A step cannot be listed (O_PATH), and the listing needs a position of its own: "." is opened anew.
  const int fd = step < 0 ? -1 : openat(step, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  utils::UniqueFd opened(fd);
  const std::unique_ptr<DIR, CloseDirectory> directory(opened ? fdopendir(opened.get()) : nullptr);
  if (directory == nullptr) throw utils::IoError("cannot list the directory " + where, errno);
  opened.release();  // the stream closes it
  std::vector<DirectoryEntry> entries;
  errno = 0;  // readdir() gives null at the end and for a failure; only errno tells them apart
  while (const dirent* entry = readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") entries.push_back({std::string(name), is_directory(step, *entry)});
    errno = 0;
  }
  if (errno != 0) throw utils::IoError("cannot list the directory " + where, errno);
  return entries;
}

}  // namespace ossilar::source
