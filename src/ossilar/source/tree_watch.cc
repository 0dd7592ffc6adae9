// inotify watches one folder at a time, so each folder has a watch of its own. A watch follows its folder
// when that is moved, and would report changes under the old path. So when a watched folder itself goes or
// moves, or when the queue overflows, nothing is repaired: all watches are dropped and the caller scans,
// which adds them anew. That is rare, and to mend single watches would need every path below them.
//
// The other order that matters is the caller's: a folder is watched before it is read (last_look.cc).
#include "ossilar/source/tree_watch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <system_error>
#include <utility>

#include "ossilar/utils/logging.h"

namespace ossilar::source {
namespace {

const utils::Logger watch_logger("ossilar.source.watch");

// All that can change an index: contents, attributes (permissions and times), and which files there are; not
// who reads them. IN_ONLYDIR and IN_DONT_FOLLOW: neither a file nor a link may stand in for a folder.
// IN_EXCL_UNLINK: a file that was deleted while it is open is of no interest any more.
constexpr std::uint32_t kEvents = IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                  IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW |
                                  IN_EXCL_UNLINK;

// After these a watch may be about a folder that is elsewhere now, or notifications were lost
// (IN_Q_OVERFLOW).
constexpr std::uint32_t kUpheavals = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED | IN_Q_OVERFLOW;

// Magic numbers, as statfs(2) gives them, of file systems whose files no other machine changes. It lists the
// good ones: an unknown file system costs scans, but no change is missed.
constexpr std::array<std::uint32_t, 9> kLocal{
    0xEF53,      // ext2, ext3, ext4
    0x58465342,  // xfs
    0x9123683E,  // btrfs
    0xF2F52010,  // f2fs
    0x01021994,  // tmpfs
    0x858458F6,  // ramfs
    0x794C7630,  // overlayfs
    0x2FC12FC1,  // zfs
    0xCA451A4E,  // bcachefs
};

// Of a relative path; "" for what lies in the root.
std::string parent_of(const std::string& folder) {
  const std::size_t slash = folder.rfind('/');
  return folder.substr(0, slash == std::string::npos ? 0 : slash);
}

}  // namespace

TreeWatch::TreeWatch(std::filesystem::path root) : root_(std::move(root)) { begin(); }

// A new descriptor: closing the old one drops its watches and all its waiting notifications at once.
void TreeWatch::begin() {
  folders_.clear();
  watched_.clear();
  fd_ = utils::UniqueFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!fd_) give_up(root_, std::generic_category().message(errno));
}

// For the life of the watch: a limit on watches or a network file system seldom goes away by itself, and each
// new attempt would add all folders again.
void TreeWatch::give_up(const std::filesystem::path& folder, const std::string& reason) {
  watch_logger.info("cannot watch %s (%s), so every refresh checks all source files",
                    {folder.string(), reason});
  folders_.clear();
  watched_.clear();
  fd_ = utils::UniqueFd();
}

// Asked once for each device, not for each folder.
bool TreeWatch::is_local(const std::filesystem::path& folder) {
  struct stat info {};
  if (lstat(folder.c_str(), &info) != 0) return true;  // gone meanwhile, which its parent's watch reports
  const auto known = devices_.find(info.st_dev);
  if (known != devices_.end()) return known->second;
  struct statfs system {};
  const bool local =
      statfs(folder.c_str(), &system) == 0 &&
      std::find(kLocal.begin(), kLocal.end(), static_cast<std::uint32_t>(system.f_type)) != kLocal.end();
  return devices_[info.st_dev] = local;
}

bool TreeWatch::add_one(const std::string& folder) {
  const std::filesystem::path path = folder.empty() ? root_ : root_ / folder;
  const int watch = inotify_add_watch(fd_.get(), path.c_str(), kEvents);
  if (watch < 0) {
    // Missing, or no folder any more: its parent's watch reports when that changes.
    if (errno != ENOENT && errno != ENOTDIR) give_up(path, std::generic_category().message(errno));
    return false;
  }
  // After the watch: a folder that goes in between is reported by its parent.
  if (!is_local(path)) {
    give_up(path, "another machine may change it");
    return false;
  }
  folders_.emplace(watch, folder);
  watched_.insert(folder);
  return true;
}

bool TreeWatch::add(const std::set<std::string>& folders) {
  bool any = false;
  for (const std::string& folder : folders) {
    if (!is_trusted()) return false;
    // IN_DONT_FOLLOW is about the last part of a path alone; a link on the way would be followed. So a folder
    // is added only below one that is watched, which is no link. The set is in order: "a" comes before "a/b".
    const bool is_below = folder.empty() || watched_.count(parent_of(folder)) > 0;
    if (is_below && watched_.count(folder) == 0 && add_one(folder)) any = true;
  }
  return any && is_trusted();
}

void TreeWatch::add_beside(const std::string& folder) {
  if (is_trusted() && watched_.count(folder) == 0) add_one(folder);
}

// A change of a watched folder itself has no name.
bool TreeWatch::is_concerned(int watch, const std::string& name, const Concerns& concerns) const {
  const auto [first, last] = folders_.equal_range(watch);
  return std::any_of(first, last, [&](const auto& folder) {
    const std::string& in = folder.second;
    const std::string path = in.empty() || name.empty() ? in + name : in + "/" + name;
    return path.empty() || concerns(path);
  });
}

// Reads the notifications in `events`. Once one concerns the caller, the others are searched for an upheaval
// only.
void TreeWatch::hear(const char* events, std::size_t size, const Concerns& concerns, Heard& heard) const {
  for (std::size_t at = 0; at < size;) {
    inotify_event event{};
    std::memcpy(&event, events + at, sizeof event);
    // Copied, because the language forbids reading the bytes in place as an inotify_event. The name is padded
    // with zeros.
    const std::string name = event.len == 0 ? "" : events + at + sizeof event;
    at += sizeof event + event.len;
    // What a watch without a path here reports cannot be judged.
    if ((event.mask & kUpheavals) != 0 || folders_.count(event.wd) == 0) {
      heard.upheaval = true;
    } else if (!heard.concerning) {
      heard.concerning = is_concerned(event.wd, name, concerns);
    }
  }
}

bool TreeWatch::is_quiet(const Concerns& concerns) {
  if (!is_trusted()) return false;
  Heard heard;
  // Room for some sixty notifications with the longest name, or a thousand without one. The queue is emptied
  // in any case, so that the next call hears only what is new.
  alignas(inotify_event) std::array<char, std::size_t{16} * 1024> buffer{};
  for (;;) {
    const ssize_t got = read(fd_.get(), buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno != EAGAIN) heard.upheaval = true;  // EAGAIN: the queue is empty
    if (got <= 0) break;
    hear(buffer.data(), static_cast<std::size_t>(got), concerns, heard);
  }
  if (heard.upheaval) begin();
  return !heard.concerning && !heard.upheaval;
}

}  // namespace ossilar::source
