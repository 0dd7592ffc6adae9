// In git the index tells which files there are. A walk would find build output too, and to leave that out it
// would need git's ignore rules, those of the user included; the index has every tracked file in one read.
//
// Outside git the tree is walked with a stack of folders instead of recursion, so its depth costs no stack.
// The last folder found comes first: Tree keeps the folders above the last one open, and a walk into the
// depth uses them.
#include "ossilar/source/listing.h"

#include <algorithm>
#include <array>

#include "ossilar/source/git/git.h"
#include "ossilar/source/git/git_index.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

// The longest path that the system takes (PATH_MAX). A file with a longer one cannot be opened by its name,
// and the limit ends any walk.
constexpr std::size_t kLongestPath = 4096;

class Collector {
 public:
  explicit Collector(const Exclusions& excluded) : excluded_(excluded) {}

  // Whether `path` belongs to the listing. One that is not UTF-8 does not, as records and pages could not
  // name it; it is noted as skipped.
  bool accepts(const std::string& path) {
    if (excluded_.covers(path) || path.size() > kLongestPath) return false;
    if (!utils::first_invalid_utf8(path)) return true;
    listing_.skipped.push_back(utils::printable(path));
    return false;
  }
  void add_folder(const std::string& path) { listing_.walked.push_back(path); }
  void set_index_file(std::filesystem::path file) { listing_.index_file = std::move(file); }
  void add(std::string path, bool is_submodule) { listing_.files.push_back({std::move(path), is_submodule}); }

  Listing take() {
    auto& files = listing_.files;
    const auto before = [](const Listed& a, const Listed& b) { return a.path < b.path; };
    // git's index is mostly in order already, and a check is cheaper than a sort.
    if (!std::is_sorted(files.begin(), files.end(), before)) std::sort(files.begin(), files.end(), before);
    // A path in a merge conflict is in the index once for each side.
    const auto same = [](const Listed& a, const Listed& b) { return a.path == b.path; };
    files.erase(std::unique(files.begin(), files.end(), same), files.end());
    return std::move(listing_);
  }

 private:
  const Exclusions& excluded_;
  Listing listing_;
};

void collect_index(git_repository* repository, const std::filesystem::path& root, Collector& out) {
  const GitHandle<git_index> index = read_index(repository, root);
  const std::size_t count = git_index_entrycount(index.get());
  for (std::size_t i = 0; i < count; ++i) {
    const git_index_entry* entry = git_index_get_byindex(index.get(), i);
    std::string path = entry->path;
    if (out.accepts(path)) out.add(std::move(path), entry->mode == GIT_FILEMODE_COMMIT);
  }
}

// Folders that hold no sources, at any depth; .ossilar is our own state.
bool is_version_control(std::string_view name) {
  static constexpr std::array<std::string_view, 4> kNames = {".git", ".hg", ".svn", ".ossilar"};
  return std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

// A folder that cannot be listed, as one without permission, is logged and taken for empty, so that the rest
// is still indexed. For the root it is a failure: an empty index would look like an empty repository.
std::vector<DirectoryEntry> list_folder(Tree& tree, const std::string& folder) {
  try {
    return tree.list(folder);
  } catch (const utils::IoError& error) {
    // A process that is out of descriptors or memory would take the folder, and all below it, for gone.
    if (folder.empty() || is_exhaustion(error.error())) throw;
    utils::Logger("ossilar.source")
        .warning("cannot list a folder, so its files are left out of the index", error);
    return {};
  }
}

// A folder below the root with a `.git` is a repository of its own: it is listed as one and not entered.
void collect_folder(const std::string& folder, std::vector<DirectoryEntry> entries, Collector& out,
                    std::vector<std::string>& folders) {
  const auto is_git = [](const DirectoryEntry& entry) { return entry.name == ".git"; };
  if (!folder.empty() && std::any_of(entries.begin(), entries.end(), is_git)) return out.add(folder, true);
  for (DirectoryEntry& entry : entries) {
    std::string path = folder.empty() ? std::move(entry.name) : folder + "/" + entry.name;
    if (is_version_control(std::string_view(path).substr(path.rfind('/') + 1)) || !out.accepts(path))
      continue;
    if (entry.is_directory) {
      folders.push_back(std::move(path));
    } else {
      out.add(std::move(path), false);
    }
  }
}

void collect_walk(Tree& tree, Collector& out) {
  std::vector<std::string> folders = {""};
  while (!folders.empty()) {
    const std::string folder = std::move(folders.back());
    folders.pop_back();
    out.add_folder(folder);
    collect_folder(folder, list_folder(tree, folder), out, folders);
  }
}

}  // namespace

Exclusions::Exclusions(const std::vector<std::string>& paths) {
  for (std::string path : paths) {
    while (!path.empty() && path.back() == '/') path.pop_back();
    paths_.insert(std::move(path));
  }
}

bool Exclusions::covers(std::string_view path) const {
  // Searches the set for each folder above `path` and for `path` itself.
  if (paths_.empty()) return false;
  for (std::size_t end = 0; end < path.size(); ++end) {
    end = std::min(path.find('/', end), path.size());
    if (paths_.find(path.substr(0, end)) != paths_.end()) return true;
  }
  return false;
}

Listing list_files(const std::filesystem::path& root, const Exclusions& excluded, Tree& tree) {
  Collector out(excluded);
  if (const auto repository = open_repository(root)) {
    out.set_index_file(index_file_of(repository.get()));
    collect_index(repository.get(), root, out);
  } else {
    collect_walk(tree, out);
  }
  return out.take();
}

}  // namespace ossilar::source
