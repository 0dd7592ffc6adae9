// The tree is cut into drafts without names (tree_cutter.cc), and the drafts become pages here. Cutting first
// is needed because the cut is tried with several sizes, and because ids and titles have to be unique in the
// whole plan.
//
// Everything must come out the same in every checkout and on every machine: sources and ids that changed
// without a change of the tree would make pages stale or unplanned. So every sort breaks ties in a fixed way,
// and the checkout's name is for titles and descriptions only.
#include "ossilar/workers/wiki/plan/planner.h"

#include <algorithm>
#include <map>
#include <optional>
#include <tuple>
#include <utility>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/plan/file_roles.h"
#include "ossilar/workers/wiki/plan/folder_tree.h"
#include "ossilar/workers/wiki/plan/plan_names.h"
#include "ossilar/workers/wiki/plan/tree_cutter.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;

// An architecture page rests on what shows the parts: manifests and the main file of each module. More files
// show more of a large repository, but a change to any of them makes the page stale.
constexpr std::size_t kArchitectureFiles = 20;
constexpr std::size_t kArchitectureManifests = 5;  // so that those of many build systems leave room for code
constexpr std::size_t kRelatedSiblings = 4;  // two before and two after; more would be a list of the folder
constexpr std::size_t kNamedFiles = 3;       // in a description, which is one sentence
// A top module of at least a tenth of the code is what a reader asks for first.
constexpr std::int64_t kHighShare = 10;

// What the steps below share.
struct Repo {
  const source::SourceIndex& index;
  const FolderTree& tree;
  const std::string& name;  // of a checkout, which may be any: for titles and descriptions alone
};

// To two significant digits: an exact count would change the description with every commit.
std::int64_t rounded(std::int64_t number) {
  std::int64_t unit = 1;
  while (number / unit >= 100) unit *= 10;
  return (number + unit / 2) / unit * unit;
}

// The one or two languages with the most lines of code, or of all files where there is no code. `files` is
// not empty.
std::string main_languages(const std::vector<const SourceFile*>& files, const Repo& repo) {
  std::map<std::string, std::int64_t> code, all;
  for (const SourceFile* file : files) {
    const std::string name = file->language.empty() ? "text" : file->language;
    const FileRole role = repo.tree.role(*file);
    if (role == FileRole::code || role == FileRole::test) code[name] += file->lines;
    all[name] += file->lines;
  }
  // By lines, which are negative so that the most come first; then by name.
  std::vector<std::pair<std::int64_t, std::string>> ranked;
  for (const auto& [language, lines] : code.empty() ? all : code) ranked.emplace_back(-lines, language);
  std::sort(ranked.begin(), ranked.end());
  // A second language is named from a tenth of the first on; the comparison is turned around, as both are
  // negative.
  const bool two = ranked.size() > 1 && ranked[1].first * 10 <= ranked[0].first;
  return ranked[0].second + (two ? " and " + ranked[1].second : "");
}

// "12 files with about 3,400 lines of Go". `files` is not empty.
std::string measure(const std::vector<const SourceFile*>& files, const Repo& repo) {
  std::int64_t lines = 0;
  for (const SourceFile* file : files) lines += file->lines;
  const auto count = static_cast<std::int64_t>(files.size());
  return counted(count, "file") + " with about " + counted(rounded(lines), "line") + " of " +
         main_languages(files, repo);
}

// A few of the largest files by name: a label such as "a–m" says nothing of what they are about.
std::string named_files(std::vector<const SourceFile*> files) {
  std::sort(files.begin(), files.end(), [](const SourceFile* a, const SourceFile* b) {
    return std::make_pair(-a->lines, std::string_view(a->path)) <
           std::make_pair(-b->lines, std::string_view(b->path));
  });
  std::vector<std::string> names;
  for (std::size_t i = 0; i < std::min(files.size(), kNamedFiles); ++i) {
    names.emplace_back(file_name(files[i]->path));
  }
  return utils::join(names, ", ") + (files.size() > kNamedFiles ? " and others" : "");
}

std::string subject_of(const Draft& draft) {
  switch (draft.role) {
    case FolderRole::tests:
      return "Tests in ";
    case FolderRole::examples:
      return "Examples in ";
    case FolderRole::benchmarks:
      return "Benchmarks in ";
    case FolderRole::vendored:
      return "Code of other projects";
    case FolderRole::docs:
      return "Documentation in ";
    case FolderRole::generated:
      return "Generated files";
    default:
      if (draft.label.empty()) return draft.path.empty() ? "Files at " : "Module ";
      return "Files " + draft.label + " in ";
  }
}

// Names of projects in a description, which is one sentence.
constexpr std::size_t kNamedProjects = 160;  // bytes

// "Code of other projects in deps: hiredis, jemalloc, lua."
std::string bundled_description(const Draft& draft) {
  std::string names = draft.label;
  if (names.size() > kNamedProjects)
    names = names.substr(0, names.rfind(", ", kNamedProjects)) + " and others";
  return subject_of(draft) + (draft.path.empty() ? "" : " in " + draft.path) + ": " + names + ".";
}

std::string title_of(const Draft& draft, const Repo& repo) {
  if (is_bundled(draft.role)) return draft.path.empty() ? "Bundled code" : draft.path;
  if (draft.path.empty()) return repo.name + " (" + (draft.label.empty() ? "root" : draft.label) + ")";
  return draft.path + (draft.label.empty() ? "" : " (" + draft.label + ")");
}

std::string description_of(const Draft& draft, const Repo& repo) {
  if (is_bundled(draft.role)) return bundled_description(draft);
  std::string text = subject_of(draft) + (draft.path.empty() ? "the root of " + repo.name : draft.path);
  if (!draft.label.empty()) text += " (" + named_files(draft.files) + ")";
  if (draft.is_cut) text += ", only the first of them";
  return text + ": " + measure(draft.files, repo) + ".";
}

// A page is weighed by the top folder that it lies in: cut_tree() passes through wrappers, so a top module's
// page may be src/main/java/com/acme, and large modules have their weight on the pages below them.
std::string importance_of(const Draft& draft, const Repo& repo) {
  const std::string top = draft.path.substr(0, draft.path.find('/'));
  if (draft.role != FolderRole::ordinary || is_upkeep_folder(top)) return "low";
  const Folder& root = repo.tree.root();
  const auto in_top = [&](std::size_t child) { return repo.tree[child].path == top; };
  const auto child = std::find_if(root.children.begin(), root.children.end(), in_top);
  const std::int64_t weight =
      draft.path.empty() || child == root.children.end() ? draft.weight : repo.tree[*child].weight;
  return draft.parent == kTop && weight * kHighShare >= root.weight ? "high" : "medium";
}

// Code in the order of its paths, then the tests beside it, then the rest: lists of sources are cut at their
// ends.
std::vector<std::string> paths_of(const std::vector<const SourceFile*>& files, const Repo& repo) {
  std::vector<std::pair<int, std::string_view>> ordered;
  for (const SourceFile* file : files) {
    const FileRole role = repo.tree.role(*file);
    ordered.emplace_back(role == FileRole::code ? 0 : role == FileRole::test ? 1 : 2, file->path);
  }
  std::sort(ordered.begin(), ordered.end());
  std::vector<std::string> paths;
  paths.reserve(ordered.size());
  for (const auto& [order, path] : ordered) paths.emplace_back(path);
  return paths;
}

// The id comes from the folder and the group's slug alone: a page keeps it while its size and title change.
PagePlan module_page(const Draft& draft, const Repo& repo, UniqueNames& names) {
  PagePlan page;
  const std::string folder = draft.path.empty() && !is_bundled(draft.role) ? "root" : draft.path;
  page.page_id = names.id(folder + (folder.empty() || draft.slug.empty() ? "" : "/") + draft.slug);
  page.title = names.title(title_of(draft, repo));
  page.description = description_of(draft, repo);
  page.importance = importance_of(draft, repo);
  page.type = "module";
  page.source_files = paths_of(draft.files, repo);
  return page;
}

// A page about the whole. Its id is also the name of its type.
PagePlan synthesis_page(std::string_view id, const std::string& title, const std::string& description) {
  PagePlan page;
  page.page_id = id;
  page.title = title;
  page.description = description;
  page.importance = "high";
  page.type = id;
  return page;
}

// The file that tells most about the draft, or null if it has no code. Nearness to the top counts first, then
// where a program or package begins, then size; the path makes the choice unique.
const SourceFile* main_file(const Draft& draft, const Repo& repo) {
  using Rank = std::tuple<std::ptrdiff_t, int, std::int64_t, std::string_view>;
  std::optional<std::pair<Rank, const SourceFile*>> best;
  for (const SourceFile* file : draft.files) {
    if (repo.tree.role(*file) != FileRole::code || file->lines < kEmptyLines) continue;
    const Rank rank(std::count(file->path.begin(), file->path.end(), '/'), entry_rank(*file), -file->lines,
                    file->path);
    if (!best || rank < best->first) best.emplace(rank, file);
  }
  return best ? best->second : nullptr;
}

std::vector<std::string> architecture_files(const std::vector<Draft>& drafts, const Repo& repo) {
  std::vector<std::string> files;
  for (const std::string& path : overview_files(repo.index)) {
    const bool manifest = repo.tree.role(*repo.index.find(path)) == FileRole::manifest;
    if (manifest && files.size() < kArchitectureManifests) files.push_back(path);
  }
  // Top modules first, and the largest of those, as a large repository has more modules than room here.
  std::vector<const Draft*> tellers;
  for (const Draft& draft : drafts) {
    if (draft.role == FolderRole::ordinary) tellers.push_back(&draft);
  }
  std::stable_sort(tellers.begin(), tellers.end(), [](const Draft* a, const Draft* b) {
    return std::make_pair(a->parent != kTop, -a->weight) < std::make_pair(b->parent != kTop, -b->weight);
  });
  for (const Draft* draft : tellers) {
    const SourceFile* file = files.size() < kArchitectureFiles ? main_file(*draft, repo) : nullptr;
    if (file != nullptr) files.push_back(file->path);
  }
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  return files;
}

std::string overview_description(const Repo& repo) {
  std::vector<const SourceFile*> files;
  for (const auto& file : repo.index.files()) {
    if (file->kind == source::FileKind::text) files.push_back(file.get());
  }
  const std::string what = "What " + repo.name + " is, what it offers and where to begin";
  return files.empty() ? what + "." : what + ": " + measure(files, repo) + ".";
}

std::vector<PagePlan> pages_about_all(const std::vector<Draft>& drafts, const Repo& repo,
                                      UniqueNames& names) {
  std::vector<PagePlan> pages;
  pages.push_back(synthesis_page(names.id(kOverviewId), names.title("Overview"), overview_description(repo)));
  pages.back().source_files = overview_files(repo.index);
  pages.push_back(synthesis_page(names.id(kArchitectureId), names.title("Architecture"),
                                 "How the parts of " + repo.name + " fit together."));
  pages.back().source_files = architecture_files(drafts, repo);
  return pages;
}

// Sets the related pages: of a module its nearest siblings, and for top modules the architecture; of the two
// pages about the whole each other and the modules that matter most. `pages` begins with those two.
//
// Siblings are in the order of the plan, so near ones mostly are near in the tree.
void relate(std::vector<PagePlan>& pages) {
  std::map<std::string, std::vector<PagePlan*>> siblings;
  std::vector<std::string> high;
  for (PagePlan& page : pages) {
    if (page.type != "module") continue;
    siblings[page.parent].push_back(&page);
    if (page.importance == "high") high.push_back(page.page_id);
  }
  for (auto& [parent, group] : siblings) {
    for (std::size_t i = 0; i < group.size(); ++i) {
      const std::size_t first = i - std::min(i, kRelatedSiblings / 2);
      const std::size_t last = std::min(group.size(), first + kRelatedSiblings + 1);
      if (parent.empty()) group[i]->related_pages.emplace_back(kArchitectureId);
      for (std::size_t k = first; k < last; ++k) {
        if (k != i) group[i]->related_pages.push_back(group[k]->page_id);
      }
    }
  }
  if (high.size() > kRelatedSiblings) high.resize(kRelatedSiblings);
  for (std::size_t i = 0; i < 2; ++i) {  // overview and architecture: each gets the other, `1 - i`, first
    pages[i].related_pages = high;
    pages[i].related_pages.insert(pages[i].related_pages.begin(), pages[1 - i].page_id);
  }
}

}  // namespace

std::vector<PagePlan> derive_plan(const source::SourceIndex& index, const std::string& repository_name) {
  const FolderTree tree(index);
  const std::vector<Draft> drafts = cut_tree(tree, index);
  UniqueNames names;
  const Repo repo{index, tree, repository_name};
  // First, for their ids: a folder called overview then gets "overview-2", and not the other way round.
  std::vector<PagePlan> pages = pages_about_all(drafts, repo, names);
  const std::size_t first_module = pages.size();
  for (const Draft& draft : drafts) {
    pages.push_back(module_page(draft, repo, names));
    // A draft comes after the one above it, so that page is there, under whatever id it got.
    if (draft.parent != kTop) pages.back().parent = pages[first_module + draft.parent].page_id;
  }
  link_pages(pages);
  relate(pages);
  return pages;
}

}  // namespace ossilar::workers::wiki
