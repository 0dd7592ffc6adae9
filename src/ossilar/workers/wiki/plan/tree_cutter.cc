#include "ossilar/workers/wiki/plan/tree_cutter.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <tuple>
#include <utility>

#include "ossilar/workers/wiki/plan/file_roles.h"
#include "ossilar/workers/wiki/plan/name_groups.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;

// What an author can read for one page: some 6,000 lines in 40 files, with what a file costs on top of its
// lines.
constexpr std::int64_t kReach = 6000 + 40 * kFileWeight;
// A folder below this share of the reach is no subject of its own: it is told on the page of the folder
// around it.
constexpr std::int64_t kSmallShare = 8;
// More pages than this are more than a team of agents keeps true; the reach grows until the plan has fewer.
constexpr std::size_t kMostPages = 1000;
constexpr std::int64_t kFarthestReach = std::int64_t{1} << 40;  // farther than any repository
// A file or two of scripts or tests is not worth a page.
constexpr std::int64_t kLeastPage = 150;

void move_to(std::vector<Item>& items, std::vector<Item> more) {
  std::move(more.begin(), more.end(), std::back_inserter(items));
}

std::vector<const SourceFile*> files_of(const std::vector<Item>& items) {
  std::vector<const SourceFile*> files;
  for (const Item& item : items) files.insert(files.end(), item.files.begin(), item.files.end());
  return files;
}

// Walks the tree from the top and cuts it into pages.
class Cutter {
 public:
  Cutter(const FolderTree& tree, std::int64_t reach) : tree_(tree), reach_(reach) {}

  std::vector<Draft> cut() {
    open_.push_back({0, kTop});
    while (!open_.empty()) {
      const Open next = open_.back();
      open_.pop_back();
      if (tree_[next.folder].ordinary()) {
        cut_folder(next.folder, next.parent);
      } else {
        gather(next.folder, next.parent);
      }
    }
    return std::move(drafts_);
  }

 private:
  struct Open {
    std::size_t folder;
    std::size_t parent;
  };
  // What stands in a folder, sorted by where it is told.
  struct Contents {
    std::vector<Item> items;                     // on the folder's page, or on pages of groups
    std::vector<const SourceFile*> companions;   // on the folder's page, without weight
    std::vector<std::size_t> modules, gathered;  // folders with pages of their own
    bool described = false;                      // by a README in the folder
  };

  void cut_folder(std::size_t folder, std::size_t parent);
  std::size_t without_wrappers(std::size_t folder, std::vector<std::size_t>& gathered) const;
  void one_page(std::size_t folder, std::size_t parent, std::vector<std::size_t> gathered);
  Contents contents(std::size_t folder) const;
  void sort_files(const Folder& folder, Contents& out) const;
  void sort_child(std::size_t child, std::int64_t small, bool at_root, Contents& out) const;
  std::size_t folder_page(std::size_t folder, std::size_t parent, Contents& contents);
  GroupedItems grouped_items(const std::string& folder, std::vector<Item> items) const;
  std::vector<Item> take_entry_points(const std::string& folder, std::vector<Item>& items) const;
  void gather(std::size_t folder, std::size_t parent);
  std::int64_t least_page() const { return kLeastPage * (reach_ / kReach); }
  bool is_significant(const Folder& folder) const { return folder.weight > reach_ / kSmallShare; }
  std::vector<const SourceFile*> files_below(std::size_t folder, std::vector<std::size_t>* gathered) const;
  std::size_t only_module(const Folder& folder) const;
  void open_all(const std::vector<std::size_t>& folders, std::size_t parent);

  const FolderTree& tree_;
  std::int64_t reach_;
  std::vector<Draft> drafts_;
  std::vector<Open> open_;
};

// Last in, first out: the first of `folders` comes next.
void Cutter::open_all(const std::vector<std::size_t>& folders, std::size_t parent) {
  for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) open_.push_back({*folder, parent});
}

// The one ordinary child with code in it, or 0 when there is none or are several.
std::size_t Cutter::only_module(const Folder& folder) const {
  std::size_t only = 0;
  for (const std::size_t child : folder.children) {
    if (!tree_[child].ordinary() || tree_[child].weight == 0) continue;
    if (only != 0) return 0;
    only = child;
  }
  return only;
}

// From `folder` down through folders that hold nothing but the next one, as src/main/java does. What is to be
// gathered on the way is noted.
std::size_t Cutter::without_wrappers(std::size_t folder, std::vector<std::size_t>& gathered) const {
  for (;;) {
    const std::size_t next = only_module(tree_[folder]);
    if (folder == 0 || next == 0 || !tree_[folder].files.empty()) return folder;
    for (const std::size_t child : tree_[folder].children) {
      if (child != next && !tree_[child].ordinary() && tree_[child].weight >= least_page())
        gathered.push_back(child);
    }
    folder = next;
  }
}

void Cutter::cut_folder(std::size_t folder, std::size_t parent) {
  std::vector<std::size_t> beside;
  folder = without_wrappers(folder, beside);
  open_all(beside, parent);
  if (folder != 0 && tree_[folder].weight <= reach_) return one_page(folder, parent, {});
  Contents found = contents(folder);
  const std::size_t page = folder_page(folder, parent, found);
  open_all(found.gathered, folder == 0 ? kTop : page);
  open_all(found.modules, folder == 0 ? kTop : page);
}

void Cutter::one_page(std::size_t folder, std::size_t parent, std::vector<std::size_t> gathered) {
  if (tree_[folder].weight == 0) return;
  Draft draft{tree_[folder].path, "", "", FolderRole::ordinary, parent, tree_[folder].weight, {}};
  draft.files = files_below(folder, &gathered);
  drafts_.push_back(std::move(draft));
  open_all(gathered, drafts_.size() - 1);
}

// The files in the folder and below it. Folders of another role which are significant are left out and noted.
std::vector<const SourceFile*> Cutter::files_below(std::size_t folder,
                                                   std::vector<std::size_t>* gathered) const {
  std::vector<const SourceFile*> files;
  for (std::size_t i = folder; i < tree_[folder].end;) {
    const Folder& below = tree_[i];
    if (gathered != nullptr && !below.ordinary() && is_significant(below)) {
      gathered->push_back(i);
      i = below.end;
    } else {
      files.insert(files.end(), below.files.begin(), below.files.end());
      ++i;
    }
  }
  return files;
}

Cutter::Contents Cutter::contents(std::size_t folder) const {
  Contents out;
  const std::int64_t small = std::min(reach_ / kSmallShare, tree_[folder].weight / 10);
  std::size_t inner = folder;
  // A folder with a manifest and one folder of code is a package, told under the package's name.
  for (std::size_t next = 0;; inner = next) {
    sort_files(tree_[inner], out);
    next = inner == 0 || !out.items.empty() ? 0 : only_module(tree_[inner]);
    for (const std::size_t child : tree_[inner].children) {
      if (child != next) sort_child(child, small, folder == 0, out);
    }
    if (next == 0) return out;
  }
}

void Cutter::sort_files(const Folder& folder, Contents& out) const {
  for (const SourceFile* file : folder.files) {
    const std::int64_t weight = tree_.weight(*file);
    const FileRole role = tree_.role(*file);
    if (weight > 0) {
      out.items.push_back({std::string(file_stem(file->path)), weight, {file}});
    } else if (!folder.path.empty() ||
               role == FileRole::test) {  // what describes the whole is the overview's
      out.companions.push_back(file);
      out.described |= role == FileRole::prose && is_readme(file->path);
    }
  }
}

void Cutter::sort_child(std::size_t child, std::int64_t small, bool at_root, Contents& out) const {
  const Folder& folder = tree_[child];
  if (!folder.ordinary() && (at_root ? folder.weight >= least_page() : is_significant(folder))) {
    out.gathered.push_back(child);
  } else if (folder.ordinary() && folder.weight > small) {
    out.modules.push_back(child);
  } else if (folder.ordinary() && folder.weight > 0) {
    out.items.push_back({std::string(file_name(folder.path)), folder.weight, files_below(child, nullptr)});
  } else {
    const auto files = files_below(child, nullptr);
    out.companions.insert(out.companions.end(), files.begin(), files.end());
  }
}

// Makes the page of what stands in the folder itself, and those of the groups that it falls into. Returns the
// page above the folder's modules, which is `parent` when the folder has nothing to tell on a page of its
// own.
std::size_t Cutter::folder_page(std::size_t folder, std::size_t parent, Contents& contents) {
  const std::string& path = tree_[folder].path;
  const std::int64_t weight = total_weight(contents.items);
  if (folder != 0 && weight < least_page() && !contents.described) return parent;
  if (weight == 0 && !contents.described) return parent;
  GroupedItems grouped = grouped_items(path, std::move(contents.items));
  std::vector<const SourceFile*> files = files_of(grouped.rest);
  files.insert(files.end(), contents.companions.begin(), contents.companions.end());
  const std::size_t page = drafts_.size();
  drafts_.push_back(
      {path, "", "", FolderRole::ordinary, parent, total_weight(grouped.rest), std::move(files)});
  for (const NameGroup& group : grouped.groups) {
    drafts_.push_back({path, group.label, group.slug, FolderRole::ordinary, page, total_weight(group.items),
                       files_of(group.items)});
  }
  return page;
}

// What stays on the folder's own page is `rest`, and never nothing: where its programs and packages begin,
// else its largest file.
GroupedItems Cutter::grouped_items(const std::string& folder, std::vector<Item> items) const {
  GroupedItems grouped;
  if (total_weight(items) <= reach_) {
    grouped.rest = std::move(items);
    return grouped;
  }
  std::vector<Item> entry_points = take_entry_points(folder, items);
  grouped = group_by_name(std::move(items), reach_, reach_ / kSmallShare);
  move_to(grouped.rest, std::move(entry_points));
  if (grouped.groups.size() == 1) {
    move_to(grouped.rest, std::move(grouped.groups.front().items));
    grouped.groups.clear();
  }
  return grouped;
}

// Takes out of `items` where programs and packages begin, as long as that leaves room for the rest of the
// folder.
std::vector<Item> Cutter::take_entry_points(const std::string& folder, std::vector<Item>& items) const {
  std::vector<std::tuple<int, std::int64_t, std::size_t>> ranked;
  for (std::size_t i = 0; i < items.size(); ++i) {
    const bool named_alike = items[i].name == file_name(folder);
    const int rank = entry_rank(*items[i].files.front());
    ranked.emplace_back(named_alike ? 0 : rank, -items[i].weight, i);
  }
  std::sort(ranked.begin(), ranked.end());
  std::set<std::size_t> taken;
  std::int64_t room = reach_ / 2;
  for (const auto& [rank, weight, i] : ranked) {
    if (taken.empty() || (rank < kNoEntryPoint && -weight <= room)) {
      room += weight;
      taken.insert(i);
    }
  }
  std::vector<Item> entry_points, others;
  for (std::size_t i = 0; i < items.size(); ++i) {
    (taken.count(i) > 0 ? entry_points : others).push_back(std::move(items[i]));
  }
  items = std::move(others);
  return entry_points;
}

void Cutter::gather(std::size_t folder, std::size_t parent) {
  const auto depth = [](const SourceFile* file) {
    return std::count(file->path.begin(), file->path.end(), '/');
  };
  std::vector<const SourceFile*> files = files_below(folder, nullptr);
  std::stable_sort(files.begin(), files.end(),
                   [&](const SourceFile* a, const SourceFile* b) { return depth(a) < depth(b); });
  if (files.size() > kGatheredFiles) files.resize(kGatheredFiles);
  drafts_.push_back(
      {tree_[folder].path, "", "", tree_[folder].role, parent, tree_[folder].weight, std::move(files)});
}

}  // namespace

std::vector<Draft> cut_tree(const FolderTree& tree) {
  std::int64_t reach = kReach;
  // A page holds about two reaches at most, so a nearer one need not be tried.
  while (tree.root().weight / reach > 2 * static_cast<std::int64_t>(kMostPages)) reach *= 2;
  std::vector<Draft> drafts = Cutter(tree, reach).cut();
  while (drafts.size() > kMostPages && reach < kFarthestReach) {
    reach *= 2;
    drafts = Cutter(tree, reach).cut();
  }
  return drafts;
}

}  // namespace ossilar::workers::wiki
