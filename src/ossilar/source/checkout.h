// Where a working tree is, and which branch and commit are checked out in it.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "ossilar/utils/files.h"

namespace ossilar::source {

// What version control says of a folder.
struct Checkout {
  std::filesystem::path root;  // of the working tree; outside git the folder itself
  // What the repository is called, in every clone the same: by the address it was cloned from, else by its
  // folder.
  std::string name;
  bool in_git = false;
  std::string branch = "default";  // "HEAD" when detached
  std::string commit;              // 40 hexadecimal digits; "" before the first commit and outside git
};

// Reads the checkout whose working tree has `root` as its root (the caller has found it). Runs no program,
// whatever the repository's configuration says. Throws utils::Error for a repository that is damaged or bare,
// has something else than a regular file where git keeps one, or includes other files in its configuration.
Checkout read_checkout(const std::filesystem::path& root);

// Reads the checkout of one root again and again: from git's files only when one of them changed since.
//
// Thread-safety: read() may be called from any thread.
class CheckoutReader {
 public:
  // `root` as for read_checkout().
  explicit CheckoutReader(std::filesystem::path root) : root_(std::move(root)) {}
  Checkout read();

 private:
  const std::filesystem::path root_;
  std::mutex mutex_;
  std::optional<Checkout> last_;                              // guarded by mutex_, as is the next
  std::map<std::filesystem::path, utils::FileStamp> stamps_;  // of what it was read from
};

// The root of the working tree that `folder` is in: the nearest folder upward that holds `.git`, `.ossilar`
// or `ossilar.toml`; none when there is none.
std::optional<std::filesystem::path> find_root(const std::filesystem::path& folder);

}  // namespace ossilar::source
