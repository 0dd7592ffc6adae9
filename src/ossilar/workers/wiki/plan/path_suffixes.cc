// A map from every suffix of every path, so that an import costs a lookup and not a walk over the index. The
// keys are views of the paths and so cost no text. A suffix keeps its first path and whether there are
// others; which of several is meant depends on who asks, and is found by a walk up from there.
#include "ossilar/workers/wiki/plan/path_suffixes.h"

#include <array>
#include <cstddef>
#include <string>

#include "ossilar/workers/wiki/plan/file_roles.h"

namespace ossilar::workers::wiki {
namespace {

// Where projects keep what others include or import; "" is the folder itself. include/ comes before src/: of
// a header in both, the public one is meant. Each costs a lookup for every folder on the way up.
constexpr std::array<std::string_view, 6> kRoots{"",     "include/",       "src/",
                                                 "lib/", "src/main/java/", "src/main/kotlin/"};

// An import names a few folders. Without a limit a path of n parts would have n suffixes, hashed at up to
// its whole length each: quadratic for a path that was made to be deep.
constexpr int kMostParts = 16;

}  // namespace

PathSuffixes::PathSuffixes(const std::vector<std::string_view>& paths) {
  endings_.reserve(paths.size() * 4);  // a guess at the distinct endings, to spare most of the rehashing
  for (const std::string_view path : paths) {
    std::size_t slash = path.size();
    for (int part = 0; part < kMostParts && slash != std::string_view::npos && slash > 0; ++part) {
      slash = path.rfind('/', slash - 1);
      const auto [entry, added] = endings_.try_emplace(path.substr(slash + 1), Ending{path});
      if (!added) entry->second.only = false;
    }
    // Again for a path of more parts than that, or exact() would not find it.
    endings_.try_emplace(path, Ending{path}).first->second.whole = true;
  }
}

std::string_view PathSuffixes::exact(std::string_view path) const {
  const auto found = endings_.find(path);
  return found != endings_.end() && found->second.whole ? found->first : std::string_view();
}

std::string_view PathSuffixes::find(std::string_view suffix, std::string_view from,
                                    const Accept& accept) const {
  const auto found = endings_.find(suffix);
  if (found == endings_.end()) return {};
  const std::string_view path = found->second.path;
  if (!found->second.only) return nearest(suffix, from, accept);
  return !accept || accept(path.substr(0, path.size() - suffix.size())) ? path : std::string_view();
}

std::string_view PathSuffixes::nearest(std::string_view suffix, std::string_view from,
                                       const Accept& accept) const {
  // An import of something outside the repository mostly ends here, without the walk up.
  if (endings_.count(suffix) == 0) return {};
  for (std::string_view folder = from;; folder = folder_of(folder)) {
    for (const std::string_view root : kRoots) {
      const std::string base =
          folder.empty() ? std::string(root) : std::string(folder) + "/" + std::string(root);
      const std::string_view found = exact(base + std::string(suffix));
      if (!found.empty() && (!accept || accept(base))) return found;
    }
    if (folder.empty()) return {};
  }
}

}  // namespace ossilar::workers::wiki
