// A folder that fits on one page becomes one. A larger one gets a page for what is in it directly, divided by
// names if that is too much, and its large subfolders are cut the same way. So pages follow the folders,
// which their authors chose, and not sizes alone: equal pieces would cut through subjects and move with every
// commit.
//
// The size is found by trying: the number of pages depends on the shape of the tree and cannot be computed,
// so the reach doubles until the plan has few enough.
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

// The reach is the weight of what an author can read for one page: some 6,000 lines in 40 files, with what a
// file costs on top of its lines. A judgement: a larger reach gives fewer pages that say less of each file.
constexpr std::int64_t kReach = 6000 + 40 * kFileWeight;
// A folder of at most an eighth of the reach (900) is no subject of its own: it is told on the page of the
// folder around it.
constexpr std::int64_t kSmallShare = 8;
// More pages than this are more than a team of agents keeps true; the reach grows until the plan has fewer.
constexpr std::size_t kMostPages = 1000;
// More lines than any repository has. It ends the search for a reach even if the number of pages does not
// fall.
constexpr std::int64_t kFarthestReach = std::int64_t{1} << 40;
// A file or two of scripts or tests (less than 120 lines in one file) is not worth a page.
constexpr std::int64_t kLeastPage = 150;

void move_to(std::vector<Item>& items, std::vector<Item> more) {
  std::move(more.begin(), more.end(), std::back_inserter(items));
}

std::vector<const SourceFile*> files_of(const std::vector<Item>& items) {
  std::vector<const SourceFile*> files;
  for (const Item& item : items) files.insert(files.end(), item.files.begin(), item.files.end());
  return files;
}

// Walks the tree from the top and cuts it into pages, with a list of open folders instead of recursion: a
// path may have thousands of parts. One walk for one reach.
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
  // What is in a folder, sorted by the page that it goes to.
  struct Contents {
    std::vector<Item> items;                     // on the folder's page, or on pages of groups
    std::vector<const SourceFile*> companions;   // on the folder's page, but no reason for one: tests, prose
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
  // Grows with the reach, or a huge repository would get a page for every small folder of tests. Reaches are
  // kReach times a power of two, so the division is exact.
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

// open_ is a stack, so `folders` go in backward: the first of them comes next, and drafts are in the order of
// paths.
void Cutter::open_all(const std::vector<std::size_t>& folders, std::size_t parent) {
  for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) open_.push_back({*folder, parent});
}

// The one ordinary child with code in it, or 0 if there is none or more than one. 0 is the root, which is no
// child.
std::size_t Cutter::only_module(const Folder& folder) const {
  std::size_t only = 0;
  for (const std::size_t child : folder.children) {
    if (!tree_[child].ordinary() || tree_[child].weight == 0) continue;
    if (only != 0) return 0;
    only = child;
  }
  return only;
}

// From `folder` down through folders without files of their own and with one folder of code, as src/main/java
// is. Folders of another role on the way are added to `gathered` if they are worth a page; lighter ones are
// on none.
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

// The root is never one page: what is about the whole is on the overview, and its folders are the top
// modules. They have no page above them, even if files at the root have a page of their own.
void Cutter::cut_folder(std::size_t folder, std::size_t parent) {
  std::vector<std::size_t> beside;
  folder = without_wrappers(folder, beside);
  open_all(beside, parent);
  if (folder != 0 && tree_[folder].weight <= reach_) return one_page(folder, parent, {});
  Contents found = contents(folder);
  const std::size_t page = folder_page(folder, parent, found);
  // Modules last: what goes onto the stack last comes first, and tests and the like end the list.
  open_all(found.gathered, folder == 0 ? kTop : page);
  open_all(found.modules, folder == 0 ? kTop : page);
}

// The folder with all below it as one page. What is gathered below it hangs under that page.
void Cutter::one_page(std::size_t folder, std::size_t parent, std::vector<std::size_t> gathered) {
  if (tree_[folder].weight == 0) return;
  Draft draft{tree_[folder].path, "", "", FolderRole::ordinary, parent, tree_[folder].weight, {}};
  draft.files = files_below(folder, &gathered);
  drafts_.push_back(std::move(draft));
  open_all(gathered, drafts_.size() - 1);
}

// The files in the folder and below it. With `gathered`, significant folders of another role are left out and
// added to it; without it, all files are there.
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
  // In a light folder a child may be a module though it is small: a tenth of the whole is a part worth
  // naming.
  const std::int64_t small = std::min(reach_ / kSmallShare, tree_[folder].weight / 10);
  std::size_t inner = folder;
  // A folder with a manifest and one folder of code is a package (packages/p/src): its page has the package's
  // name, so the contents of both are put together, and of more such folders below.
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
               role == FileRole::test) {  // at the root, prose and manifests are about the whole
      out.companions.push_back(file);
      out.described |= role == FileRole::prose && is_readme(file->path);
    }
  }
}

// At the root a folder of tests or examples needs less weight for a page of its own than below a module,
// whose page can tell of it.
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

// Makes the page of what is in the folder itself, and below it those of the groups that this divides into.
// Returns the page above the folder's modules: `parent`, if the folder has too little for a page of its own;
// its files are then on no page. A README is enough for one, except at the root, where any code is.
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
      {path, "", "", FolderRole::ordinary, parent, total_weight(grouped.rest), std::move(files), false});
  for (const NameGroup& group : grouped.groups) {
    drafts_.push_back({path, group.label, group.slug, FolderRole::ordinary, page, total_weight(group.items),
                       files_of(group.items), false});
  }
  return page;
}

// Divides what is too much for one page. `rest` stays on the folder's own page and, with any items, is not
// empty: it has at least the files where programs and packages begin, or else the largest.
GroupedItems Cutter::grouped_items(const std::string& folder, std::vector<Item> items) const {
  GroupedItems grouped;
  if (total_weight(items) <= reach_) {
    grouped.rest = std::move(items);
    return grouped;
  }
  // Before the grouping, or they would end up on a page such as "m–z".
  std::vector<Item> entry_points = take_entry_points(folder, items);
  grouped = group_by_name(std::move(items), reach_, reach_ / kSmallShare);
  move_to(grouped.rest, std::move(entry_points));
  // One group divides nothing: one page that is too large says more than two that belong together.
  if (grouped.groups.size() == 1) {
    move_to(grouped.rest, std::move(grouped.groups.front().items));
    grouped.groups.clear();
  }
  return grouped;
}

// Takes out of `items` the files where programs and packages begin, up to half of the reach: the folder's
// page also gets what is too little for a group. The first by rank is taken in any case, so that the page has
// a source.
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
      room += weight;  // which is negative here
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

// One page for a folder of another role, whatever its size. It is not cut further: a reader wants to know
// that the tests are there and how they are laid out, not what each of them does.
void Cutter::gather(std::size_t folder, std::size_t parent) {
  const auto depth = [](const SourceFile* file) {
    return std::count(file->path.begin(), file->path.end(), '/');
  };
  std::vector<const SourceFile*> files = files_below(folder, nullptr);
  std::stable_sort(files.begin(), files.end(),
                   [&](const SourceFile* a, const SourceFile* b) { return depth(a) < depth(b); });
  const bool is_cut = files.size() > kGatheredFiles;
  if (is_cut) files.resize(kGatheredFiles);
  drafts_.push_back({tree_[folder].path, "", "", tree_[folder].role, parent, tree_[folder].weight,
                     std::move(files), is_cut});
}

}  // namespace

std::vector<Draft> cut_tree(const FolderTree& tree) {
  std::int64_t reach = kReach;
  // A page holds about two reaches at most. Where even such pages would be too many, cutting with this reach
  // is a walk for nothing.
  while (tree.root().weight / reach > 2 * static_cast<std::int64_t>(kMostPages)) reach *= 2;
  std::vector<Draft> drafts = Cutter(tree, reach).cut();
  while (drafts.size() > kMostPages && reach < kFarthestReach) {
    reach *= 2;
    drafts = Cutter(tree, reach).cut();
  }
  return drafts;
}

}  // namespace ossilar::workers::wiki
