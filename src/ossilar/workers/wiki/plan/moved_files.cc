// A wrong guess gives the id of one page to the text of another, whereas a file that is not found only counts
// as gone. So whatever is ambiguous is gone: copies, names that every folder has, a single file of a likely
// name.
#include "ossilar/workers/wiki/plan/moved_files.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include "ossilar/workers/wiki/plan/file_roles.h"
#include "ossilar/workers/wiki/plan/folder_tree.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;
using source::SourceIndex;

// A name or content that more files have, such as __init__.py, tells nothing of where one of them went.
constexpr std::size_t kMostAlike = 64;
constexpr std::size_t kLeastMoved = 2;  // files of a page that make a move of their folder

// The text at `path` today, or null. A link or a binary file in its place is not what a page was about.
const SourceFile* text_at(const SourceIndex& index, std::string_view path) {
  const SourceFile* file = index.find(path);
  return file != nullptr && file->kind == source::FileKind::text ? file : nullptr;
}

// Whether any file is left in the folder or below it. Files in the root are never of a folder that is gone.
bool is_there(const SourceIndex& index, std::string_view folder) {
  if (folder.empty()) return true;
  const std::string inside = std::string(folder) + "/";
  const auto& files = index.files();
  const auto first =
      std::lower_bound(files.begin(), files.end(), inside,
                       [](const auto& file, const std::string& path) { return file->path < path; });
  return first != files.end() && (*first)->path.starts_with(inside);
}

// Bytes of the longest end that both paths share in whole parts, without a slash before it; 0 if not even the
// name is the same.
std::size_t common_end(std::string_view a, std::string_view b) {
  std::size_t end = 0;
  for (std::size_t i = 0;; ++i) {
    const bool a_ends = i == a.size() || a[a.size() - 1 - i] == '/';
    const bool b_ends = i == b.size() || b[b.size() - 1 - i] == '/';
    if (a_ends && b_ends) end = i;
    if (i == a.size() || i == b.size() || a[a.size() - 1 - i] != b[b.size() - 1 - i]) return end;
  }
}

// A folder that became another: what stands before the end that both paths of a file share.
using Move = std::pair<std::string_view, std::string_view>;

Move move_of(std::string_view from, std::string_view to) {
  const std::size_t end = common_end(from, to);
  return {from.substr(0, from.size() - end), to.substr(0, to.size() - end)};
}

// The candidate of the highest rank, or null if two share it.
template <class Rank>
const SourceFile* best_alone(const std::vector<std::pair<Rank, const SourceFile*>>& candidates) {
  const SourceFile* best = nullptr;
  std::optional<Rank> rank;
  for (const auto& [of, file] : candidates) {
    if (rank && of == *rank) best = nullptr;
    if (rank && !(*rank < of)) continue;
    rank = of;
    best = file;
  }
  return best;
}

}  // namespace

// The files of one page.
class MovedFiles::Search {
 public:
  Search(const MovedFiles& known, const SavedPage& page) : known_(known), page_(page) {}

  std::vector<std::string_view> run() {
    for (const SavedFile& file : page_.files) {
      const SourceFile* same = text_at(known_.index_, file.path);
      places_.push_back(same != nullptr ? std::string_view(same->path) : std::string_view());
      if (same == nullptr) gone_.push_back(places_.size() - 1);
    }
    for (const std::size_t i : gone_) settle(i, same_content(page_.files[i]));
    if (gone_.size() >= kLeastMoved) follow_folders();
    return std::move(places_);
  }

 private:
  void settle(std::size_t i, const SourceFile* file) {
    if (file == nullptr) return;
    places_[i] = file->path;
    given_.insert(file->path);
  }

  // Whether `file` was one of the page's own already, or is by now: then nothing moved there.
  bool is_taken(const SourceFile& file) const {
    const auto own = std::lower_bound(page_.files.begin(), page_.files.end(), file.path,
                                      [](const SavedFile& f, const std::string& p) { return f.path < p; });
    return (own != page_.files.end() && own->path == file.path) || given_.count(file.path) > 0;
  }

  const SourceFile* same_content(const SavedFile& file) const {
    const auto found = known_.by_content_.find(file.content.hex());
    if (file.content.empty() || found == known_.by_content_.end()) return nullptr;
    if (found->second.size() > kMostAlike) return nullptr;
    std::vector<std::pair<std::size_t, const SourceFile*>> candidates;
    for (const SourceFile* candidate : found->second) {
      if (!is_taken(*candidate)) candidates.emplace_back(common_end(file.path, candidate->path), candidate);
    }
    return best_alone(candidates);
  }

  std::vector<const SourceFile*> namesakes(std::string_view path) const {
    const std::vector<std::string> paths = known_.index_.named(file_name(path));
    std::vector<const SourceFile*> files;
    if (paths.size() > kMostAlike) return files;
    for (const std::string& at : paths) {
      const SourceFile* file = text_at(known_.index_, at);
      if (file != nullptr && !is_taken(*file)) files.push_back(file);
    }
    return files;
  }

  // Each file that is gone votes for the moves that would bring it to a file of its name; one that its
  // content has found, for that one alone.
  void follow_folders() {
    std::vector<std::pair<std::size_t, std::vector<const SourceFile*>>> lost;
    std::map<Move, std::size_t> votes;
    for (const std::size_t i : gone_) {
      if (!places_[i].empty()) {
        ++votes[move_of(page_.files[i].path, places_[i])];
        continue;
      }
      lost.emplace_back(i, namesakes(page_.files[i].path));
      for (const SourceFile* file : lost.back().second) ++votes[move_of(page_.files[i].path, file->path)];
    }
    for (const auto& [i, files] : lost) settle(i, moved_with_others(page_.files[i].path, files, votes));
  }

  const SourceFile* moved_with_others(std::string_view path, const std::vector<const SourceFile*>& files,
                                      const std::map<Move, std::size_t>& votes) const {
    if (files.empty() || is_there(known_.index_, folder_of(path))) return nullptr;
    std::vector<std::pair<std::pair<std::size_t, std::size_t>, const SourceFile*>> candidates;
    for (const SourceFile* file : files) {
      const Move move = move_of(path, file->path);
      const std::size_t moved = votes.at(move);
      const bool is_most = moved >= kLeastMoved && 2 * moved > gone_below(move.first);
      if (is_most && !is_taken(*file)) candidates.push_back({{moved, common_end(path, file->path)}, file});
    }
    return best_alone(candidates);
  }

  std::size_t gone_below(std::string_view place) const {
    return static_cast<std::size_t>(std::count_if(gone_.begin(), gone_.end(), [&](std::size_t i) {
      return std::string_view(page_.files[i].path).starts_with(place);
    }));
  }

  const MovedFiles& known_;
  const SavedPage& page_;
  std::vector<std::string_view> places_;
  std::vector<std::size_t> gone_;  // indices of the files that are not at their paths
  std::set<std::string_view> given_;
};

// A few lines, such as the marker of a package, have the same content in many places: they only go along with
// their folder.
MovedFiles::MovedFiles(const std::vector<const SavedPage*>& pages, const SourceIndex& index) : index_(index) {
  for (const SavedPage* page : pages) {
    for (const SavedFile& file : page->files) {
      if (!file.content.empty() && text_at(index, file.path) == nullptr)
        by_content_.try_emplace(file.content.hex());
    }
  }
  if (by_content_.empty()) return;
  for (const auto& file : index.files()) {
    if (file->kind != source::FileKind::text || file->lines < kEmptyLines) continue;
    const auto wanted = by_content_.find(file->sha256.hex());
    if (wanted != by_content_.end()) wanted->second.push_back(file.get());
  }
}

std::vector<std::string_view> MovedFiles::places(const SavedPage& page) const {
  return Search(*this, page).run();
}

}  // namespace ossilar::workers::wiki
