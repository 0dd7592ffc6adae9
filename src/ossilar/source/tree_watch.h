// Hears from the system what changes in a tree, so that nobody has to look.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "ossilar/utils/files.h"

namespace ossilar::source {

// Watches folders by inotify(7). It hears of everything that is done through the system's calls for files;
// not of a write through a memory mapping or through another hard link, nor of what another machine does to a
// network file system: only file systems of this machine are watched.
//
// Thread-safety: one thread at a time.
class TreeWatch {
 public:
  // `root` is absolute.
  explicit TreeWatch(std::filesystem::path root);

  // Watches these folders (relative paths, "" for the root) from now on, beside those that are watched
  // already; one that is not there is left to the watch of the folder it would be in. Gives whether any was
  // new. Where one cannot be watched, none is: see is_trusted().
  bool add(const std::set<std::string>& folders);

  // Whether it has heard of all that happened since the last call to this function, and nothing of it
  // concerns the caller. `concerns` is asked for the relative path of what was changed.
  bool is_quiet(const std::function<bool(const std::string& path)>& concerns);

  // Whether all that was to be watched is.
  bool is_trusted() const { return static_cast<bool>(fd_); }

 private:
  enum class Added { yes, absent, impossible };
  Added add_one(const std::string& folder);
  bool is_local(const std::filesystem::path& folder);
  void begin();
  void give_up();

  const std::filesystem::path root_;
  utils::UniqueFd fd_;
  std::map<int, std::string> folders_;  // by watch descriptor
  std::set<std::string> watched_;
  std::map<std::uint64_t, bool> devices_;  // whether what lies on them may be watched
};

}  // namespace ossilar::source
