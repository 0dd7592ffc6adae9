// Hears from the system what changes in a tree, so that nobody has to look.
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
  // already. The folders above one are among them; one that is not there, or is behind a link, is left to the
  // watch of the folder it would be in. Gives whether any was new. Where one cannot be watched, none is: see
  // is_trusted().
  bool add(const std::set<std::string>& folders);

  // The same for one folder that need not be in the tree. `folder` is absolute; so are the paths in it that
  // is_quiet() asks for.
  void add_beside(const std::string& folder);

  // Whether it has heard of all that happened since the last call to this function, and nothing of it
  // concerns the caller. `concerns` is asked for the relative path of what was changed; the root itself
  // always does.
  using Concerns = std::function<bool(const std::string& path)>;
  bool is_quiet(const Concerns& concerns);

  // Whether all that was to be watched is.
  bool is_trusted() const { return static_cast<bool>(fd_); }

 private:
  struct Heard {
    bool concerning = false;
    bool upheaval = false;
  };
  bool add_one(const std::string& folder);
  bool is_local(const std::filesystem::path& folder);
  void begin();
  void give_up(const std::filesystem::path& folder, const std::string& reason);
  bool is_concerned(int watch, const std::string& name, const Concerns& concerns) const;
  void hear(const char* events, std::size_t size, const Concerns& concerns, Heard& heard) const;

  const std::filesystem::path root_;
  utils::UniqueFd fd_;
  // By watch descriptor. One has several names where a folder is mounted at another, too.
  std::multimap<int, std::string> folders_;
  std::set<std::string> watched_;
  std::map<std::uint64_t, bool> devices_;  // whether what lies on them may be watched
};

}  // namespace ossilar::source
