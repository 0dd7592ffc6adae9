// A folder that fits on one page becomes one. A larger one gets a page for what is in it directly, divided by
// what belongs together if that is too much, and its large subfolders are cut the same way. So pages follow
// the folders, which their authors chose, and not sizes alone: equal pieces would cut through subjects and
// move with every commit.
//
// The size is found by trying: the number of pages depends on the shape of the tree and cannot be computed,
// so the reach doubles until the plan has few enough.
#include "ossilar/workers/wiki/plan/tree_cutter.h"

#include <algorithm>
#include <optional>
#include <tuple>
#include <utility>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/plan/draft_order.h"
#include "ossilar/workers/wiki/plan/file_roles.h"
#include "ossilar/workers/wiki/plan/folder_items.h"
#include "ossilar/workers/wiki/plan/gathered.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;

// The reach is the weight of what an author can read for one page: some 6,000 lines in 40 files, with what a
// file costs on top of its lines. A judgement: a larger reach gives fewer pages that say less of each file.
constexpr std::int64_t kReach = 6000 + 40 * kFileWeight;
// A folder of at most an eighth of the reach (900) is no subject of its own: it is told on the page of the
// folder around it.
constexpr std::int64_t kSmallShare = 8;
constexpr std::size_t kLeastParts = 3;  // two may be a module and its helpers
// More pages than this are more than a team of agents keeps true; the reach grows until the plan has fewer.
constexpr std::size_t kMostPages = 1000;
// More lines than any repository has. It ends the search for a reach even if the number of pages does not
// fall.
constexpr std::int64_t kFarthestReach = std::int64_t{1} << 40;
// Less than that many lines are not worth a page.
constexpr std::int64_t kLeastLines = 300;
constexpr std::int64_t kLeastPage = kLeastLines + kFileWeight;

std::vector<const SourceFile*> files_of(const std::vector<Item>& items) {
  std::vector<const SourceFile*> files;
  for (const Item& item : items) files.insert(files.end(), item.files.begin(), item.files.end());
  return files;
}

std::int64_t lines_of(const std::vector<const SourceFile*>& files) {
  std::int64_t lines = 0;
  for (const SourceFile* file : files) lines += file->lines;
  return lines;
}

// Walks the tree from the top and cuts it into pages, with a list of open folders instead of recursion: a
// path may have thousands of parts. One walk for one reach.
class Cutter {
 public:
  // Without `index` no folder is divided for good: the drafts are only to be counted.
  Cutter(const FolderTree& tree, const source::SourceIndex* index, std::int64_t reach)
      : tree_(tree), index_(index), reach_(reach) {}

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
  bool is_worth_a_page(std::size_t folder, const Contents& contents) const;
  std::size_t folder_page(std::size_t folder, std::size_t parent, Contents& contents);
  std::size_t about_as_many(std::int64_t weight, std::size_t parent);
  std::vector<const SourceFile*> tests_apart(std::vector<Item>& items,
                                             std::vector<const SourceFile*>& companions) const;
  void tests_page(const std::string& path, std::size_t parent, const std::vector<const SourceFile*>& tests);
  void gather(std::size_t folder, std::size_t parent);
  // Grows with the reach, or a huge repository would get a page for every small folder of tests. Reaches are
  // kReach times a power of two, so the division is exact.
  std::int64_t least_page() const { return kLeastPage * (reach_ / kReach); }
  bool has_parts(std::size_t folder) const;
  bool is_significant(const Folder& folder) const { return folder.weight > reach_ / kSmallShare; }
  std::vector<const SourceFile*> files_below(std::size_t folder, std::vector<std::size_t>* gathered) const;
  std::size_t only_module(const Folder& folder) const;
  void open_all(const std::vector<std::size_t>& folders, std::size_t parent);

  const FolderTree& tree_;
  const source::SourceIndex* index_;
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
      const Folder& beside = tree_[child];
      if (child != next && !beside.ordinary() && !is_bundled(beside.role) && beside.weight >= least_page())
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
  if (folder != 0 && tree_[folder].weight <= reach_ && !has_parts(folder))
    return one_page(folder, parent, {});
  Contents found = contents(folder);
  const std::size_t page = folder_page(folder, parent, found);
  // Modules last: what goes onto the stack last comes first, and tests and the like end the list.
  open_all(found.gathered, folder == 0 ? kTop : page);
  open_all(found.modules, folder == 0 ? kTop : page);
}

// Whether a folder that one page could tell is divided all the same: it is little more than three significant
// folders or more, each with a subject of its own.
bool Cutter::has_parts(std::size_t folder) const {
  std::size_t count = 0;
  std::int64_t weight = 0;
  for (const std::size_t child : tree_[folder].children) {
    if (!tree_[child].ordinary() || !is_significant(tree_[child])) continue;
    ++count;
    weight += tree_[child].weight;
  }
  return count >= kLeastParts && 4 * weight >= 3 * tree_[folder].weight;
}

// The folder with all below it as one page. What is gathered below it hangs under that page.
void Cutter::one_page(std::size_t folder, std::size_t parent, std::vector<std::size_t> gathered) {
  if (tree_[folder].weight == 0) return;
  drafts_.push_back({.path = tree_[folder].path,
                     .parent = parent,
                     .weight = tree_[folder].weight,
                     .files = files_below(folder, &gathered)});
  open_all(gathered, drafts_.size() - 1);
}

// The files in the folder and below it but for bundled code, which has a page of its own. With `gathered`,
// significant folders of another role are left out and added to it; without it, all files are there.
std::vector<const SourceFile*> Cutter::files_below(std::size_t folder,
                                                   std::vector<std::size_t>* gathered) const {
  std::vector<const SourceFile*> files;
  for (std::size_t i = folder; i < tree_[folder].end;) {
    const Folder& below = tree_[i];
    if (is_bundled(below.role)) {
      i = below.end;
    } else if (gathered != nullptr && !below.ordinary() && is_significant(below)) {
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
  if (is_bundled(folder.role)) return;
  if (!folder.ordinary() && (at_root ? folder.weight >= least_page() : is_significant(folder))) {
    out.gathered.push_back(child);
  } else if (folder.ordinary() && folder.weight > small) {
    out.modules.push_back(child);
  } else if (folder.ordinary() && folder.weight > 0) {
    out.items.push_back(
        {std::string(file_name(folder.path)), folder.weight, files_below(child, &out.gathered)});
  } else {
    const auto files = files_below(child, &out.gathered);
    out.companions.insert(out.companions.end(), files.begin(), files.end());
  }
}

// A README is enough, except at the root, where any code is that makes a tenth of the repository.
bool Cutter::is_worth_a_page(std::size_t folder, const Contents& contents) const {
  const std::int64_t weight = total_weight(contents.items);
  std::vector<const SourceFile*> files = files_of(contents.items);
  files.insert(files.end(), contents.companions.begin(), contents.companions.end());
  const bool is_enough = weight >= least_page() && lines_of(files) >= kLeastLines;
  if (folder != 0) return is_enough || contents.described;
  return is_enough || (weight > 0 && weight * 10 >= tree_.root().weight);
}

// Makes the page of what is in the folder itself, and below it those of the groups that this divides into.
// Returns the page above the folder's modules: `parent`, if the folder has too little for a page of its own;
// its files are then on no page.
std::size_t Cutter::folder_page(std::size_t folder, std::size_t parent, Contents& contents) {
  const std::string& path = tree_[folder].path;
  if (!is_worth_a_page(folder, contents)) return parent;
  if (index_ == nullptr) return about_as_many(total_weight(contents.items), parent);
  std::vector<Item> items = with_each_name_once(std::move(contents.items));
  std::vector<const SourceFile*> tests;
  if (total_weight(items) > reach_) tests = tests_apart(items, contents.companions);
  GroupedItems grouped = divided(path, std::move(items), {reach_ / kSmallShare, reach_}, *index_);
  std::vector<const SourceFile*> files = files_of(grouped.home);
  files.insert(files.end(), contents.companions.begin(), contents.companions.end());
  const std::size_t page = drafts_.size();
  drafts_.push_back({.path = path, .parent = parent, .weight = total_weight(grouped.home), .files = files});
  for (const ItemGroup& group : grouped.groups) {
    drafts_.push_back({.path = path,
                       .label = group.name.label,
                       .slug = group.name.slug,
                       .parent = page,
                       .weight = total_weight(group.items),
                       .files = files_of(group.items)});
  }
  if (!tests.empty()) tests_page(path, page, tests);
  return page;
}

// In place of the pages of a folder that weighs this, about as many without anything in them. Groups are two
// thirds full on average.
std::size_t Cutter::about_as_many(std::int64_t weight, std::size_t parent) {
  const std::size_t page = drafts_.size();
  drafts_.resize(page + 1 + static_cast<std::size_t>(weight > reach_ ? weight * 3 / (2 * reach_) : 0),
                 Draft{.parent = parent});
  return page;
}

// The tests in a folder that is divided, taken out of what lies there, but for those of a single item. Too
// few for a page stay with the folder's own.
std::vector<const SourceFile*> Cutter::tests_apart(std::vector<Item>& items,
                                                   std::vector<const SourceFile*>& companions) const {
  std::vector<const SourceFile*> tests = files_of(take_tests(items));
  const std::vector<const SourceFile*> others = join_tests(items, companions);
  tests.insert(tests.end(), others.begin(), others.end());
  if (lines_of(tests) > reach_ / kSmallShare) return tests;
  companions.insert(companions.end(), tests.begin(), tests.end());
  return {};
}

// One page for the tests in a folder of code, whatever their size.
void Cutter::tests_page(const std::string& path, std::size_t parent,
                        const std::vector<const SourceFile*>& tests) {
  Gathered shown = gathered(tests);
  drafts_.push_back({.path = path,
                     .label = "tests",
                     .slug = "tests",
                     .role = FolderRole::tests,
                     .parent = parent,
                     .weight = lines_of(tests),
                     .files = std::move(shown.files),
                     .is_cut = shown.is_cut});
}

// One page for a folder of another role, whatever its size. It is not cut further: a reader wants to know
// that the tests are there and how they are laid out, not what each of them does.
void Cutter::gather(std::size_t folder, std::size_t parent) {
  const std::vector<const SourceFile*> files = files_below(folder, nullptr);
  if (lines_of(files) < kLeastLines) return;
  Gathered shown = gathered(files);
  drafts_.push_back({.path = tree_[folder].path,
                     .role = tree_[folder].role,
                     .parent = parent,
                     .weight = tree_[folder].weight,
                     .files = std::move(shown.files),
                     .is_cut = shown.is_cut});
}

// The page about code that nobody here writes, if there is enough of it.
std::optional<Draft> bundled_page(const FolderTree& tree, const source::SourceIndex& index) {
  std::vector<std::size_t> folders;
  std::int64_t weight = 0;
  for (std::size_t i = 0; i < tree.size(); i = is_bundled(tree[i].role) ? tree[i].end : i + 1) {
    if (!is_bundled(tree[i].role)) continue;
    folders.push_back(i);
    weight += tree[i].weight;
  }
  const std::vector<const SourceFile*>& files = tree.bundled_files();
  for (const SourceFile* file : files) weight += file->lines + kFileWeight;
  BundledCode bundled = bundled_code(tree, folders, files, index);
  if (weight < kLeastPage || bundled.shown.files.empty()) return std::nullopt;
  const bool is_one = folders.size() == 1;
  return Draft{.path = is_one ? tree[folders.front()].path : "",
               .label = utils::join(bundled.projects, ", "),
               .slug = is_one ? "" : "bundled",
               .role = is_one ? tree[folders.front()].role : FolderRole::vendored,
               .weight = weight,
               .files = std::move(bundled.shown.files),
               .is_cut = bundled.shown.is_cut};
}

}  // namespace

std::vector<Draft> cut_tree(const FolderTree& tree, const source::SourceIndex& index) {
  std::int64_t reach = kReach;
  // Dividing folders takes most of the time, so pages are counted before.
  while (Cutter(tree, nullptr, reach).cut().size() > kMostPages && reach < kFarthestReach) reach *= 2;
  std::vector<Draft> drafts = Cutter(tree, &index, reach).cut();
  while (drafts.size() > kMostPages && reach < kFarthestReach) {
    reach *= 2;
    drafts = Cutter(tree, &index, reach).cut();
  }
  if (auto bundled = bundled_page(tree, index)) drafts.push_back(std::move(*bundled));
  return in_order(std::move(drafts));
}

}  // namespace ossilar::workers::wiki
