// Folders of the same content have the same id and are not opened, so a small change of a large tree is found
// at once. With a list of what is open and not by recursion, as a hostile tree may be deeper than any stack.
#include "ossilar/source/git/tree_changes.h"

#include <algorithm>
#include <utility>

#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

// A folder that is still to be compared: "" or with a slash at its end; its tree on each side, null where
// there is none.
struct ComparedFolder {
  std::string path;
  GitHandle<git_tree> before, after;
};

// "" unless the entry is there and of this type.
std::string id_of(const git_tree_entry* entry, git_object_t type) {
  return entry != nullptr && git_tree_entry_type(entry) == type ? hex_of(git_tree_entry_id(entry)) : "";
}

GitHandle<git_tree> tree_of(const GitObjects& objects, const std::string& id) {
  return id.empty() ? nullptr : objects.tree(id);
}

GitHandle<git_tree> tree_of_commit(const GitObjects& objects, const std::string& commit) {
  auto tree = objects.tree_of_commit(commit);
  if (!tree) throw utils::Error("the commit " + commit + " is not in this clone; fetch it");
  return tree;
}

// Notes how the entry of one name differs; null where there is none.
void compare(const GitObjects& objects, const std::string& folder, const git_tree_entry* before,
             const git_tree_entry* after, std::vector<TreeChange>& changes,
             std::vector<ComparedFolder>& open) {
  const std::string path = folder + git_tree_entry_name(before != nullptr ? before : after);
  if (utils::first_invalid_utf8(path)) return;
  TreeChange change{path, id_of(before, GIT_OBJECT_BLOB), id_of(after, GIT_OBJECT_BLOB)};
  if (!change.before.empty() || !change.after.empty()) changes.push_back(std::move(change));
  auto tree_before = tree_of(objects, id_of(before, GIT_OBJECT_TREE));
  auto tree_after = tree_of(objects, id_of(after, GIT_OBJECT_TREE));
  if (tree_before || tree_after) open.push_back({path + "/", std::move(tree_before), std::move(tree_after)});
}

// Both trees are in git's order and are gone through side by side, so nothing is made of an entry that is the
// same. To git a file and a folder of one name are two entries: the one goes, and the other comes.
void compare(const GitObjects& objects, const ComparedFolder& at, std::vector<TreeChange>& changes,
             std::vector<ComparedFolder>& open) {
  const auto count_of = [](const auto& tree) { return tree ? git_tree_entrycount(tree.get()) : 0; };
  const auto entry_of = [](const auto& tree, std::size_t i) { return git_tree_entry_byindex(tree.get(), i); };
  const std::size_t befores = count_of(at.before);
  const std::size_t afters = count_of(at.after);
  for (std::size_t i = 0, j = 0; i < befores || j < afters;) {
    const git_tree_entry* before = i < befores ? entry_of(at.before, i) : nullptr;
    const git_tree_entry* after = j < afters ? entry_of(at.after, j) : nullptr;
    if (before != nullptr && after != nullptr) {
      const int order = git_tree_entry_cmp(before, after);
      if (order > 0) before = nullptr;
      if (order < 0) after = nullptr;
    }
    if (before != nullptr) ++i;
    if (after != nullptr) ++j;
    const bool is_same = before != nullptr && after != nullptr &&
                         git_oid_equal(git_tree_entry_id(before), git_tree_entry_id(after)) != 0;
    if (!is_same) compare(objects, at.path, before, after, changes, open);
  }
}

}  // namespace

std::vector<TreeChange> tree_changes(const GitObjects& objects, const std::string& before,
                                     const std::string& after) {
  std::vector<TreeChange> changes;
  std::vector<ComparedFolder> open;
  open.push_back({"", tree_of_commit(objects, before), tree_of_commit(objects, after)});
  while (!open.empty()) {
    const ComparedFolder at = std::move(open.back());
    open.pop_back();
    compare(objects, at, changes, open);
  }
  std::sort(changes.begin(), changes.end(),
            [](const TreeChange& a, const TreeChange& b) { return a.path < b.path; });
  return changes;
}

std::vector<TreeChange> file_changes(const CommitFiles& before, const CommitFiles& after) {
  std::vector<TreeChange> changes;
  auto then = before.begin();
  auto now = after.begin();
  while (then != before.end() || now != after.end()) {
    const bool is_gone = now == after.end() || (then != before.end() && then->first < now->first);
    const bool is_new = then == before.end() || (now != after.end() && now->first < then->first);
    if (is_gone) {
      changes.push_back({then->first, then->second, ""});
    } else if (is_new) {
      changes.push_back({now->first, "", now->second});
    } else if (then->second != now->second) {
      changes.push_back({then->first, then->second, now->second});
    }
    if (!is_new) ++then;
    if (!is_gone) ++now;
  }
  return changes;
}

}  // namespace ossilar::source
