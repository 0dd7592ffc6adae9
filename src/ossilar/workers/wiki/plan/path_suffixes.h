// Paths found by how they end, in whole parts: "b/c.h" finds "a/b/c.h" and not "ab/c.h". import_resolver.cc
// looks up what an import means in them. What is not found is "", never an error.
#pragma once

#include <functional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ossilar::workers::wiki {

// Thread-safety: immutable, may be used from any threads.
// Lifetime: refers to the texts behind the paths that it was made of, and gives views of them.
class PathSuffixes {
 public:
  // Time and memory are linear in the number of suffixes, at most 16 a path. The order of `paths` does not
  // matter.
  explicit PathSuffixes(const std::vector<std::string_view>& paths);

  // `path` when it is one of the paths, else "".
  std::string_view exact(std::string_view path) const;

  // Says whether what stands before a suffix ("", or a folder with its '/') may be a root of such paths:
  // <queue.h>, for example, is only looked for in folders for includes. None accepts every root.
  using Accept = std::function<bool(std::string_view root)>;

  // The path that `suffix` means in the folder `from`: the only one that ends so, or of several the
  // nearest(). "" for none, also when `accept` refuses the only one.
  std::string_view find(std::string_view suffix, std::string_view from, const Accept& accept = {}) const;

  // The path at `suffix` below the folder `from` or the nearest folder above it, directly or in one of the
  // customary source folders such as include/ and src/. "" for none.
  std::string_view nearest(std::string_view suffix, std::string_view from, const Accept& accept = {}) const;

 private:
  struct Ending {
    std::string_view path;  // the first that ends so
    bool only = true;       // no other does
    bool whole = false;     // it is a path itself
  };
  std::unordered_map<std::string_view, Ending> endings_;
};

}  // namespace ossilar::workers::wiki
