#include "ossilar/source/listing.h"

#include <algorithm>
#include <array>

#include "ossilar/source/git.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

// What the system takes as a path; deeper files cannot be opened by name, and no walk goes on for ever.
constexpr std::size_t kLongestPath = 4096;

class Collector {
 public:
  explicit Collector(const Exclusions& excluded) : excluded_(excluded) {}

  // Whether `path` belongs to the listing; notes it as skipped when it cannot.
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
    // git's index mostly is in order.
    if (!std::is_sorted(files.begin(), files.end(), before)) std::sort(files.begin(), files.end(), before);
    // A path in conflict stands in the index once a side.
    const auto same = [](const Listed& a, const Listed& b) { return a.path == b.path; };
    files.erase(std::unique(files.begin(), files.end(), same), files.end());
    return std::move(listing_);
  }

 private:
  const Exclusions& excluded_;
  Listing listing_;
};

// An index that git reads and libgit2 does not: a word of what libgit2 says of it, and how git makes a plain
// one.
struct IndexKind {
  std::string_view sign;
  std::string_view advice;
};
constexpr std::array<IndexKind, 3> kUnreadableIndexes{{
    {"'link'",
     "it is a split index; run `git config core.splitIndex false; git update-index --no-split-index`"},
    {"'sdir'", "it is a sparse index; run `git sparse-checkout reapply --no-sparse-index`"},
    {"checksum",
     "it is damaged, or without its checksum; if git can read it, run `git config index.skipHash false; git "
     "update-index --force-write-index`"},
}};

[[noreturn]] void throw_unreadable_index(const std::filesystem::path& root) {
  const utils::Error error = git_error("cannot read the index of the git repository at " + root.string());
  const std::string_view reason = error.what();
  // The sign is in its last part; what comes before holds a path, which may have any word.
  for (const IndexKind& kind : kUnreadableIndexes) {
    if (reason.find(kind.sign, reason.rfind(": ")) != reason.npos)
      throw utils::Error(std::string(reason) + " (" + std::string(kind.advice) + ")");
  }
  throw error;
}

void collect_index(git_repository* repository, const std::filesystem::path& root, Collector& out) {
  git_index* opened = nullptr;
  const int result = git_repository_index(&opened, repository);
  const GitHandle<git_index> index(opened);
  if (result < 0) throw_unreadable_index(root);
  const std::size_t count = git_index_entrycount(index.get());
  for (std::size_t i = 0; i < count; ++i) {
    const git_index_entry* entry = git_index_get_byindex(index.get(), i);
    std::string path = entry->path;
    if (out.accepts(path)) out.add(std::move(path), entry->mode == GIT_FILEMODE_COMMIT);
  }
}

bool is_version_control(std::string_view name) {
  static constexpr std::array<std::string_view, 4> kNames = {".git", ".hg", ".svn", ".ossilar"};
  return std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

// A folder that cannot be listed leaves what it holds out; for the root that is a failure.
std::vector<DirectoryEntry> list_folder(Tree& tree, const std::string& folder) {
  try {
    return tree.list(folder);
  } catch (const utils::IoError& error) {
    if (folder.empty()) throw;
    utils::Logger("ossilar.source").warning("a folder is left out of the index", error);
    return {};
  }
}

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
