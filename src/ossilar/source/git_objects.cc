// Trees are walked here, one object at a time. libgit2's own diff of two trees would do the same and open
// each object's file unchecked, and a pipe in its place would block it for ever.
#include "ossilar/source/git_objects.h"

#include <algorithm>
#include <cctype>
#include <system_error>
#include <utility>

#include "ossilar/source/git_files.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

namespace fs = std::filesystem;

std::string hex_of(const git_oid* id) {
  std::string hex(GIT_OID_HEXSZ, '0');
  git_oid_fmt(hex.data(), id);
  return hex;
}

std::optional<git_oid> id_of(const std::string& hex) {
  git_oid id;
  if (hex.size() != GIT_OID_HEXSZ || git_oid_fromstr(&id, hex.c_str()) != 0) return std::nullopt;
  return id;
}

bool is_blob(const git_tree_entry* entry) { return git_tree_entry_type(entry) == GIT_OBJECT_BLOB; }
bool is_tree(const git_tree_entry* entry) { return git_tree_entry_type(entry) == GIT_OBJECT_TREE; }

std::string below(const std::string& folder, const git_tree_entry* entry) {
  return folder + git_tree_entry_name(entry);
}

// What may be asked for: one name of git's, then any number of ~N and ^N. Everything else that git reads as a
// revision, such as dates or searches, would have to be looked at in other files.
bool is_plain_revision(std::string_view revision) {
  const std::size_t end = std::min(revision.find_first_of("~^"), revision.size());
  const auto in_name = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
           std::string_view("._-/+@").find(c) != std::string_view::npos;
  };
  const auto in_steps = [](char c) {
    return c == '~' || c == '^' || std::isdigit(static_cast<unsigned char>(c)) != 0;
  };
  return end > 0 && revision.front() != '-' && revision.front() != '/' &&
         revision.find("..") == std::string_view::npos &&
         std::all_of(revision.begin(), revision.begin() + static_cast<std::ptrdiff_t>(end), in_name) &&
         std::all_of(revision.begin() + static_cast<std::ptrdiff_t>(end), revision.end(), in_steps);
}

// The index of a checkout, where a file has no blob while it is in conflict.
void add_staged(git_index* index, std::map<std::string, std::string>& files) {
  const std::size_t count = git_index_entrycount(index);
  for (std::size_t i = 0; i < count; ++i) {
    const git_index_entry* entry = git_index_get_byindex(index, i);
    if (entry->mode == GIT_FILEMODE_COMMIT) continue;  // a submodule: no file of this repository
    if (utils::first_invalid_utf8(entry->path)) continue;
    files[entry->path] = git_index_entry_stage(entry) == 0 ? hex_of(&entry->id) : "";
  }
}

}  // namespace

// Hashes alone: no repository is needed.
std::string blob_id(std::string_view content) {
  use_libgit2();
  git_oid id;
  if (git_odb_hash(&id, content.data(), content.size(), GIT_OBJECT_BLOB) != 0)
    throw git_error("cannot hash a file");
  return hex_of(&id);
}

GitObjects::GitObjects(fs::path root) : root_(std::move(root)), repository_(open_repository(root_)) {
  if (!repository_) {
    hindrance_ = "this is no git repository";
    return;
  }
  directory_ = git_repository_path(repository_.get());
  common_ = git_repository_commondir(repository_.get());
  look_at_packs(common_);
  std::error_code error;
  if (fs::exists(common_ / "objects/info/alternates", error))
    hindrance_ = "the repository borrows its objects from another one (objects/info/alternates)";
}

GitObjects::~GitObjects() = default;

void GitObjects::look_at_object(const std::string& id) const {
  source::look_at_object(common_ / "objects" / id.substr(0, 2) / id.substr(2));
}

std::optional<std::string> GitObjects::blob(const std::string& id) {
  const auto oid = id_of(id);
  if (!oid || !hindrance_.empty()) return std::nullopt;
  look_at_object(id);
  git_blob* found = nullptr;
  const int result = git_blob_lookup(&found, repository_.get(), &*oid);
  const GitHandle<git_blob> blob(found);
  if (result == GIT_ENOTFOUND) return std::nullopt;
  if (result != 0) throw git_error("cannot read an object of the git repository at " + root_.string());
  return std::string(static_cast<const char*>(git_blob_rawcontent(blob.get())),
                     static_cast<std::size_t>(git_blob_rawsize(blob.get())));
}

// The files in which git looks for a name, in its order, are looked at first. What is behind the name is
// objects: libgit2 opens those of a chain of ~N itself, so each is looked at by following the chain here.
std::string GitObjects::commit(const std::string& revision) {
  const std::string fault = "no commit '" + utils::printable_line(revision) + "'";
  if (!hindrance_.empty()) throw utils::ConfigError(fault + ": " + hindrance_);
  if (!is_plain_revision(revision)) {
    throw utils::ConfigError(fault +
                             ": name a branch, a tag, HEAD or a commit's id, with ~N or ^N behind it");
  }
  const std::string name = revision.substr(0, revision.find_first_of("~^"));
  for (const char* folder : {"", "refs", "refs/tags", "refs/heads", "refs/remotes"}) {
    look_at_reference(directory_ / folder / name);
    look_at_reference(common_ / folder / name);
  }
  look_at_named(name);
  git_object* found = nullptr;
  const int result = git_revparse_single(&found, repository_.get(), name.c_str());
  GitHandle<git_object> object(found);
  const auto go_to = [&](const git_oid* id) {
    if (id == nullptr) throw utils::ConfigError(fault + " in this repository");
    look_at_object(hex_of(id));
    git_object* next = nullptr;
    if (git_object_lookup(&next, repository_.get(), id, GIT_OBJECT_ANY) != 0)
      throw utils::ConfigError(fault + " in this repository");
    object = GitHandle<git_object>(next);
  };
  const auto as_commit = [&] { return reinterpret_cast<const git_commit*>(object.get()); };
  if (result != 0) throw utils::ConfigError(fault + " in this repository");
  while (git_object_type(object.get()) == GIT_OBJECT_TAG)
    go_to(git_tag_target_id(reinterpret_cast<const git_tag*>(object.get())));
  if (git_object_type(object.get()) != GIT_OBJECT_COMMIT)
    throw utils::ConfigError(fault + " in this repository");
  for (std::size_t at = name.size(); at < revision.size();) {
    const bool is_line = revision[at++] == '~';
    const std::size_t end = std::min(revision.find_first_of("~^", at), revision.size());
    const std::string digits = revision.substr(at, end - at);
    if (digits.size() > 9) throw utils::ConfigError(fault + " in this repository");
    const unsigned count = digits.empty() ? 1 : static_cast<unsigned>(std::stoul(digits));
    at = end;
    if (!is_line && count > 0) go_to(git_commit_parent_id(as_commit(), count - 1));
    for (unsigned i = 0; is_line && i < count; ++i) go_to(git_commit_parent_id(as_commit(), 0));
  }
  return hex_of(git_object_id(object.get()));
}

// A name is a reference, or the beginning of an id, for which libgit2 opens each object that it may be.
void GitObjects::look_at_named(const std::string& name) const {
  git_reference* found = nullptr;
  if (git_reference_dwim(&found, repository_.get(), name.c_str()) == 0) {
    const GitHandle<git_reference> reference(found);
    if (const git_oid* id = git_reference_target(reference.get())) look_at_object(hex_of(id));
  }
  if (name.size() < 4 || name.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return;
  std::string digits = name;
  std::transform(digits.begin(), digits.end(), digits.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(common_ / "objects" / digits.substr(0, 2), error))
    if (entry.path().filename().string().starts_with(digits.substr(2))) source::look_at_object(entry.path());
}

std::optional<std::string> GitObjects::merge_base(const std::string& commit, const std::string& other) {
  const auto one = id_of(commit);
  const auto two = id_of(other);
  git_oid base;
  if (!one || !two || !hindrance_.empty() || git_merge_base(&base, repository_.get(), &*one, &*two) != 0)
    return std::nullopt;
  return hex_of(&base);
}

GitHandle<git_tree> GitObjects::tree(const std::string& id) {
  const auto oid = id_of(id);
  look_at_object(id);
  git_tree* found = nullptr;
  if (!oid || git_tree_lookup(&found, repository_.get(), &*oid) != 0)
    throw git_error("cannot read a folder of a commit of " + root_.string());
  return GitHandle<git_tree>(found);
}

GitHandle<git_tree> GitObjects::tree_of_commit(const std::string& id) {
  const auto oid = id_of(id);
  if (!oid || !hindrance_.empty()) return nullptr;
  look_at_object(id);
  git_commit* found = nullptr;
  if (git_commit_lookup(&found, repository_.get(), &*oid) != 0) return nullptr;
  const GitHandle<git_commit> commit(found);
  return tree(hex_of(git_commit_tree_id(commit.get())));
}

// What is still to be compared: a folder, "" or with a slash at its end, with its tree on each side, null
// where there is none. Kept in a list, as a hostile tree may be deeper than any stack.
struct GitObjects::Walk {
  std::string folder;
  GitHandle<git_tree> before, after;
};

namespace {

const git_tree_entry* entry_of(const git_tree* tree, const char* name) {
  return tree == nullptr ? nullptr : git_tree_entry_byname(tree, name);
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

std::string blob_of(const git_tree_entry* entry) {
  return entry != nullptr && is_blob(entry) ? hex_of(git_tree_entry_id(entry)) : "";
}

std::string tree_id_of(const git_tree_entry* entry) {
  return entry != nullptr && is_tree(entry) ? hex_of(git_tree_entry_id(entry)) : "";
}

}  // namespace

std::vector<TreeChange> GitObjects::changes(const std::string& before, const std::string& after) {
  std::vector<TreeChange> changes;
  std::vector<Walk> open;
  open.push_back({"", tree_of_commit(before), tree_of_commit(after)});
  if (!open.front().after || (!before.empty() && !open.front().before))
    throw utils::Error("a commit that is to be compared is not in this clone; fetch it");
  while (!open.empty()) {
    const Walk at = std::move(open.back());
    open.pop_back();
    for (const std::string& name : names_in(at.before.get(), at.after.get())) {
      const git_tree_entry* then = entry_of(at.before.get(), name.c_str());
      const git_tree_entry* now = entry_of(at.after.get(), name.c_str());
      if (then != nullptr && now != nullptr &&
          git_oid_equal(git_tree_entry_id(then), git_tree_entry_id(now)) != 0)
        continue;
      const std::string path = below(at.folder, then != nullptr ? then : now);
      if (utils::first_invalid_utf8(path)) continue;
      const std::string blob_then = blob_of(then);
      const std::string blob_now = blob_of(now);
      if (!blob_then.empty() || !blob_now.empty()) changes.push_back({path, blob_then, blob_now});
      const std::string tree_then = tree_id_of(then);
      const std::string tree_now = tree_id_of(now);
      if (tree_then.empty() && tree_now.empty()) continue;
      open.push_back({path + "/", tree_then.empty() ? nullptr : tree(tree_then),
                      tree_now.empty() ? nullptr : tree(tree_now)});
    }
  }
  std::sort(changes.begin(), changes.end(),
            [](const TreeChange& a, const TreeChange& b) { return a.path < b.path; });
  return changes;
}

std::optional<std::map<std::string, std::string>> GitObjects::files(const std::string& commit) {
  auto root = tree_of_commit(commit);
  if (!root) return std::nullopt;
  std::map<std::string, std::string> files;
  std::vector<Walk> open;
  open.push_back({"", nullptr, std::move(root)});
  while (!open.empty()) {
    const Walk at = std::move(open.back());
    open.pop_back();
    const std::size_t count = git_tree_entrycount(at.after.get());
    for (std::size_t i = 0; i < count; ++i) {
      const git_tree_entry* entry = git_tree_entry_byindex(at.after.get(), i);
      const std::string path = below(at.folder, entry);
      if (utils::first_invalid_utf8(path)) continue;
      if (is_blob(entry)) files[path] = hex_of(git_tree_entry_id(entry));
      if (is_tree(entry)) open.push_back({path + "/", nullptr, tree(hex_of(git_tree_entry_id(entry)))});
    }
  }
  return files;
}

std::map<std::string, std::string> GitObjects::staged() const {
  std::map<std::string, std::string> files;
  if (!repository_) return files;
  git_index* opened = nullptr;
  const int result = git_repository_index(&opened, repository_.get());
  const GitHandle<git_index> index(opened);
  if (result < 0) throw git_error("cannot read the index of the git repository at " + root_.string());
  add_staged(index.get(), files);
  return files;
}

}  // namespace ossilar::source
