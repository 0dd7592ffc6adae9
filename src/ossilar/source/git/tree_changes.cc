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

const git_tree_entry* entry_of(const git_tree* tree, const std::string& name) {
  return tree == nullptr ? nullptr : git_tree_entry_byname(tree, name.c_str());
}

// The names in both trees, each once, in order.
std::vector<std::string> names_in(const git_tree* before, const git_tree* after) {
  std::vector<std::string> names;
  for (const git_tree* tree : {before, after}) {
    const std::size_t count = tree == nullptr ? 0 : git_tree_entrycount(tree);
    for (std::size_t i = 0; i < count; ++i)
      names.emplace_back(git_tree_entry_name(git_tree_entry_byindex(tree, i)));
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

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

void compare(const GitObjects& objects, const ComparedFolder& at, std::vector<TreeChange>& changes,
             std::vector<ComparedFolder>& open) {
  for (const std::string& name : names_in(at.before.get(), at.after.get())) {
    const git_tree_entry* before = entry_of(at.before.get(), name);
    const git_tree_entry* after = entry_of(at.after.get(), name);
    if (before != nullptr && after != nullptr &&
        git_oid_equal(git_tree_entry_id(before), git_tree_entry_id(after)) != 0)
      continue;
    const std::string path = at.path + name;
    if (utils::first_invalid_utf8(path)) continue;
    TreeChange change{path, id_of(before, GIT_OBJECT_BLOB), id_of(after, GIT_OBJECT_BLOB)};
    if (!change.before.empty() || !change.after.empty()) changes.push_back(std::move(change));
    auto tree_before = tree_of(objects, id_of(before, GIT_OBJECT_TREE));
    auto tree_after = tree_of(objects, id_of(after, GIT_OBJECT_TREE));
    if (tree_before || tree_after)
      open.push_back({path + "/", std::move(tree_before), std::move(tree_after)});
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
