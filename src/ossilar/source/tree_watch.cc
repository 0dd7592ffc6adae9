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
#include <utility>

namespace ossilar::source {
namespace {

constexpr std::uint32_t kEvents = IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                  IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW |
                                  IN_EXCL_UNLINK;

// After these a watch may be about a folder that is elsewhere now, or some were missed.
constexpr std::uint32_t kUpheavals = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED | IN_Q_OVERFLOW;

// File systems whose files no other machine changes, by statfs(2).
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

}  // namespace

TreeWatch::TreeWatch(std::filesystem::path root) : root_(std::move(root)) { begin(); }

void TreeWatch::begin() {
  folders_.clear();
  watched_.clear();
  fd_ = utils::UniqueFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
}

void TreeWatch::give_up() {
  folders_.clear();
  watched_.clear();
  fd_ = utils::UniqueFd();
}

bool TreeWatch::is_local(const std::filesystem::path& folder) {
  struct stat info {};
  if (lstat(folder.c_str(), &info) != 0) return true;  // gone meanwhile, as its own folder tells
  const auto known = devices_.find(info.st_dev);
  if (known != devices_.end()) return known->second;
  struct statfs system {};
  const bool local =
      statfs(folder.c_str(), &system) == 0 &&
      std::find(kLocal.begin(), kLocal.end(), static_cast<std::uint32_t>(system.f_type)) != kLocal.end();
  return devices_[info.st_dev] = local;
}

TreeWatch::Added TreeWatch::add_one(const std::string& folder) {
  const std::filesystem::path path = folder.empty() ? root_ : root_ / folder;
  const int watch = inotify_add_watch(fd_.get(), path.c_str(), kEvents);
  if (watch < 0) return errno == ENOENT || errno == ENOTDIR ? Added::absent : Added::impossible;
  if (!is_local(path)) return Added::impossible;
  folders_[watch] = folder;
  watched_.insert(folder);
  return Added::yes;
}

bool TreeWatch::add(const std::set<std::string>& folders) {
  bool any = false;
  for (const std::string& folder : folders) {
    if (!is_trusted()) return false;
    if (watched_.count(folder) > 0) continue;
    const Added added = add_one(folder);
    if (added == Added::impossible) give_up();
    any = any || added == Added::yes;
  }
  return any && is_trusted();
}

bool TreeWatch::is_quiet(const std::function<bool(const std::string&)>& concerns) {
  if (!is_trusted()) return false;
  bool quiet = true;
  bool upheaval = false;
  alignas(inotify_event) std::array<char, std::size_t{16} * 1024> buffer{};
  for (;;) {
    const ssize_t got = read(fd_.get(), buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    for (std::size_t at = 0; at < static_cast<std::size_t>(got);) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof event);
      const char* name = buffer.data() + at + sizeof event;
      at += sizeof event + event.len;
      const auto folder = folders_.find(event.wd);
      if ((event.mask & kUpheavals) != 0 || folder == folders_.end()) {
        upheaval = true;
      } else if (quiet && event.len > 0) {
        const std::string path = folder->second.empty() ? name : folder->second + "/" + name;
        quiet = !concerns(path);
        // What is below a folder that was moved goes on being watched where it is now.
        upheaval = upheaval || (!quiet && (event.mask & IN_ISDIR) != 0);
      }
    }
  }
  if (upheaval) begin();
  return quiet && !upheaval;
}

}  // namespace ossilar::source
