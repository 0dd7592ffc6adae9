// Is notified of changes in a tree, so that a refresh need not scan it. last_look.cc owns one for each
// indexer with Options::watch.
//
// A watch that fails is given up with a log entry, and is_trusted() is false from then on: the caller scans
// each time. Nothing here throws for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "ossilar/utils/files.h"

namespace ossilar::source {

// Watches folders by inotify(7), which reports everything that is done through the system's calls for files.
// It does not report a write through a memory mapping or through another hard link, nor what another machine
// does to a network file system; therefore only local file systems are watched.
//
// Thread-safety: one thread at a time. No thread of its own: notifications wait in the system's queue for
// is_quiet().
class TreeWatch {
 public:
  // `root` is absolute.
  explicit TreeWatch(std::filesystem::path root);

  // Watches these folders (relative paths, "" for the root) from now on, beside those that are watched
  // already. With each folder, all folders above it must be among them. A folder that is missing, or is
  // reached through a link, is not watched; its parent's watch reports when that changes. Gives whether any
  // folder is new. If one cannot be watched, all are given up: see is_trusted().
  bool add(const std::set<std::string>& folders);

  // The same for one folder that may lie outside the tree. `folder` is absolute, and is_quiet() asks
  // `concerns` for absolute paths in it.
  void add_beside(const std::string& folder);

  // Whether every change since the last call of this function was reported, and none of them concerns the
  // caller. `concerns` is asked for the relative path of each change; a change of the root itself always
  // concerns. After lost or doubtful notifications the answer is false, and nothing is watched until the next
  // add().
  using Concerns = std::function<bool(const std::string& path)>;
  bool is_quiet(const Concerns& concerns);

  // Whether all folders that were added are watched, but for those that are missing. Once false, it stays
  // false.
  bool is_trusted() const { return static_cast<bool>(fd_); }

 private:
  struct Heard {
    bool concerning = false;  // the caller is concerned by a change
    bool upheaval = false;    // notifications were lost, or a watch may be about another folder now
  };
  bool add_one(const std::string& folder);
  bool is_local(const std::filesystem::path& folder);
  void begin();
  void give_up(const std::filesystem::path& folder, const std::string& reason);
  bool is_concerned(int watch, const std::string& name, const Concerns& concerns) const;
  void hear(const char* events, std::size_t size, const Concerns& concerns, Heard& heard) const;

  const std::filesystem::path root_;
  utils::UniqueFd fd_;
  // Paths by watch descriptor. One descriptor has several paths when a folder is also mounted elsewhere in
  // the tree: inotify goes by inode.
  std::multimap<int, std::string> folders_;
  std::set<std::string> watched_;          // the same paths
  std::map<std::uint64_t, bool> devices_;  // whether a device is local, by its number
};

}  // namespace ossilar::source
