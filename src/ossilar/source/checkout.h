// Finds the root of a working tree, and reads which branch and commit are checked out in it.
//
// The commands find their root here (cli/shared.cc). In workers/wiki, open_wiki.cc reads the checkout once
// when a wiki is opened, and a CheckoutReader serves what is asked again and again: the branch at each call
// of a session (wiki_provider.cc) and the commit (wiki.h).
//
// Thread-safety: every function may be called from any thread. Nothing is written, so a failure leaves
// nothing behind.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "ossilar/utils/files.h"

namespace ossilar::source {

// What version control says about a folder.
struct Checkout {
  std::filesystem::path root;  // of the working tree; outside git the folder itself
  // The last part of the address that the repository was cloned from, so that all clones have one name;
  // without such an address the name of its folder.
  std::string name;
  std::string origin = {};  // that address, with whatever name and password stand in it; "" for none
  bool in_git = false;
  std::string branch = "default";  // "HEAD" when detached
  std::string commit;              // 40 hexadecimal digits; "" before the first commit and outside git
};

// Reads the checkout of the working tree at `root`, as find_root() gives it. Runs no program, whatever the
// repository's configuration says. Throws utils::Error for a repository that is damaged or bare, has anything
// but a regular file where git keeps one, or includes other files in its configuration.
Checkout read_checkout(const std::filesystem::path& root);

// Reads the checkout of one root repeatedly. The checkout is cached, keyed by the stamps of the git files it
// was read from; files younger than two seconds are not trusted.
//
// Thread-safety: read() may be called from any thread; calls run one after the other.
class CheckoutReader {
 public:
  // `root` as for read_checkout().
  explicit CheckoutReader(std::filesystem::path root) : root_(std::move(root)) {}
  // Throws as read_checkout(); nothing stays cached then.
  Checkout read();

 private:
  const std::filesystem::path root_;
  std::mutex mutex_;
  std::optional<Checkout> last_;                              // guarded by mutex_, as is the next
  std::map<std::filesystem::path, utils::FileStamp> stamps_;  // of the files it was read from
};

// The root of the working tree that `folder` is in, symbolic links resolved: the nearest folder, from
// `folder` itself upward, that holds `.git`, `.ossilar` or `ossilar.toml`. None when there is none, or no
// `folder`.
std::optional<std::filesystem::path> find_root(const std::filesystem::path& folder);

}  // namespace ossilar::source
