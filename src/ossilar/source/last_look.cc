// A quiet watch alone is no proof that nothing changed. It reports nothing of the folders above the root, so
// the root must still be the same folder. git's index may be a link to a file that no watch covers, so its
// stamp must be the same, too. Writes through a memory mapping or another hard link are never reported, so no
// look is trusted for more than a minute.
//
// The invariant: complete_ is set by set_looked() alone, at the end of a look, and cleared by the first
// doubt.
#include "ossilar/source/last_look.h"

#include <algorithm>
#include <functional>
#include <set>
#include <string_view>
#include <utility>

#include "ossilar/source/git/git.h"

namespace ossilar::source {
namespace {

std::string_view folder_of(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return path.substr(0, slash == path.npos ? 0 : slash);
}

// The folders whose watches report every change to these files, also that one comes or goes: the folders that
// they are in, and all above, whose watches report that a missing folder comes. Files are in order, so
// neighbours mostly share a folder, which is then skipped.
std::set<std::string> folders_of(const Listing& listing) {
  std::set<std::string> folders(listing.walked.begin(), listing.walked.end());
  folders.insert("");
  std::string_view last;
  for (const Listed& file : listing.files) {
    const std::string_view in = folder_of(file.path);
    if (std::exchange(last, in) == in) continue;
    std::string folder = file.path;
    for (std::size_t slash = folder.rfind('/'); slash != folder.npos; slash = folder.rfind('/')) {
      folder.resize(slash);
      if (!folders.insert(folder).second) break;  // those above it are in, too
    }
  }
  return folders;
}

// Whether `path` is one of the files, which are in order, or a folder above one. It takes two searches, as
// others may stand between: "a", "a-b", "a/b".
template <class File, class PathOf>
bool leads_to(const std::vector<File>& files, PathOf path_of_file, const std::string& path) {
  const auto first_from = [&](const std::string& from) {
    return std::lower_bound(files.begin(), files.end(), from,
                            [&](const File& file, const std::string& at) { return path_of_file(file) < at; });
  };
  const auto found = first_from(path);
  if (found != files.end() && path_of_file(*found) == path) return true;
  const std::string below = path + "/";
  const auto first = first_from(below);
  return first != files.end() && path_of_file(*first).starts_with(below);
}

// Nanoseconds for which a quiet watch is trusted. A shorter time costs more scans; a longer one leaves what
// is not reported unseen for longer.
constexpr std::int64_t kLongestHearsay = 60'000'000'000;

}  // namespace

bool LastLook::is_unchanged(std::int64_t now, const Entries& entries) {
  const bool quiet = watch_.is_quiet([&](const std::string& path) { return concerns(path, entries); });
  // A clock that was set back proves nothing.
  const bool recent = now >= looked_at_ && now - looked_at_ < kLongestHearsay;
  // A folder above the root may have been moved, which is not reported: is it still the same root?
  complete_ = complete_ && quiet && recent && utils::stamp_of(root_).is_same_file(root_stamp_) &&
              utils::stamp_of(index_file_) == index_stamp_;
  return complete_;
}

// Each thing is watched, or its stamp taken, before it is read, so that a change in between is noticed.
// Folders outside git are the exception, as only the listing tells which there are: when a new one had to be
// watched, the files are listed again, until a listing finds all its folders watched. In git the listing
// comes from the index alone, and the files are looked at later. It is also listed again when git came or
// went meanwhile.
Listing LastLook::list(Tree& tree) {
  complete_ = false;
  root_stamp_ = utils::stamp_of(root_);
  watch_.add({""});
  for (;;) {
    index_file_ = find_index_file();
    if (!index_file_.empty()) watch_.add_beside(index_file_.parent_path().string());
    index_stamp_ = utils::stamp_of(index_file_);
    Listing listing = list_files(root_, excluded_, tree);
    const bool is_new = watch_.add(folders_of(listing));
    if (listing.index_file == index_file_ && !(is_new && index_file_.empty())) return listing;
  }
}

// Files and entries are in the order of their paths, and are gone through side by side.
void LastLook::set_looked(std::int64_t now, Listing listing, const Entries& entries) {
  looked_at_ = now;
  absent_.clear();
  auto entry = entries.begin();
  for (Listed& file : listing.files) {
    while (entry != entries.end() && path_of(*entry) < file.path) ++entry;
    const bool has_entry = entry != entries.end() && path_of(*entry) == file.path;
    if (!has_entry) absent_.push_back(std::move(file.path));
  }
  complete_ = watch_.is_trusted();
}

std::filesystem::path LastLook::find_index_file() const {
  const auto repository = open_repository(root_);
  return repository ? index_file_of(repository.get()) : std::filesystem::path();
}

bool LastLook::concerns(const std::string& path, const Entries& entries) const {
  if (index_file_.empty()) return !excluded_.covers(path);  // any new file is one more source
  // An index that git writes twice within a tick of the file system's clock may keep its stamp, so every
  // write counts.
  if (path == ".git" || path == index_file_.native()) return true;
  return !excluded_.covers(path) &&
         (leads_to(entries, path_of, path) || leads_to(absent_, std::identity(), path));
}

}  // namespace ossilar::source
