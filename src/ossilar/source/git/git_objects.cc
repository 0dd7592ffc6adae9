// Trees are walked here, one object at a time. libgit2's own walk would open each object's file unchecked,
// and a pipe in its place would block it for ever.
#include "ossilar/source/git/git_objects.h"

#include <system_error>
#include <utility>
#include <vector>

#include "ossilar/source/git/git_files.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

std::optional<git_oid> id_of(const std::string& hex) {
  git_oid id;
  if (hex.size() != GIT_OID_HEXSZ || git_oid_fromstr(&id, hex.c_str()) != 0) return std::nullopt;
  return id;
}

// A folder of a commit that is still to be opened: "" or with a slash at its end.
struct Folder {
  std::string path;
  GitHandle<git_tree> tree;
};

}  // namespace

std::string hex_of(const git_oid* id) {
  std::string hex(GIT_OID_HEXSZ, '0');
  git_oid_fmt(hex.data(), id);
  return hex;
}

// Hashes alone: no repository is needed.
std::string blob_id(std::string_view content) {
  use_libgit2();
  git_oid id;
  if (git_odb_hash(&id, content.data(), content.size(), GIT_OBJECT_BLOB) != 0)
    throw git_error("cannot hash a file");
  return hex_of(&id);
}

GitObjects::GitObjects(std::filesystem::path root)
    : root_(std::move(root)), repository_(open_repository(root_)) {
  if (!repository_) hindrance_ = "this is no git repository";
  if (!repository_) return;
  common_ = git_repository_commondir(repository_.get());
  look_at_packs(common_);
  std::error_code error;
  if (!std::filesystem::exists(common_ / "objects/info/alternates", error)) return;
  hindrance_ = "the repository borrows its objects from another one (objects/info/alternates)";
  repository_.reset();
}

void GitObjects::look_at(const std::string& id) const {
  source::look_at_object(common_ / "objects" / id.substr(0, 2) / id.substr(2));
}

std::optional<std::string> GitObjects::blob(const std::string& id) const {
  const auto oid = id_of(id);
  if (!oid || !repository_) return std::nullopt;
  look_at(id);
  git_blob* found = nullptr;
  const int result = git_blob_lookup(&found, repository_.get(), &*oid);
  const GitHandle<git_blob> blob(found);
  if (result == GIT_ENOTFOUND) return std::nullopt;
  if (result != 0) throw git_error("cannot read an object of the git repository at " + root_.string());
  return std::string(static_cast<const char*>(git_blob_rawcontent(blob.get())),
                     static_cast<std::size_t>(git_blob_rawsize(blob.get())));
}

GitHandle<git_tree> GitObjects::tree(const std::string& id) const {
  const auto oid = id_of(id);
  look_at(id);
  git_tree* found = nullptr;
  if (!oid || git_tree_lookup(&found, repository_.get(), &*oid) != 0)
    throw git_error("cannot read a folder of a commit of " + root_.string());
  return GitHandle<git_tree>(found);
}

GitHandle<git_tree> GitObjects::tree_of_commit(const std::string& id) const {
  const auto oid = id_of(id);
  if (!oid || !repository_) return nullptr;
  look_at(id);
  git_commit* found = nullptr;
  if (git_commit_lookup(&found, repository_.get(), &*oid) != 0) return nullptr;
  const GitHandle<git_commit> commit(found);
  return tree(hex_of(git_commit_tree_id(commit.get())));
}

// With a list of what is open and not by recursion, as a hostile tree may be deeper than any stack.
std::optional<CommitFiles> GitObjects::files(const std::string& commit) const {
  auto root = tree_of_commit(commit);
  if (!root) return std::nullopt;
  CommitFiles files;
  std::vector<Folder> open;
  open.push_back({"", std::move(root)});
  while (!open.empty()) {
    const Folder at = std::move(open.back());
    open.pop_back();
    const std::size_t count = git_tree_entrycount(at.tree.get());
    for (std::size_t i = 0; i < count; ++i) {
      const git_tree_entry* entry = git_tree_entry_byindex(at.tree.get(), i);
      std::string path = at.path + git_tree_entry_name(entry);
      if (utils::first_invalid_utf8(path)) continue;
      if (git_tree_entry_type(entry) == GIT_OBJECT_TREE) {
        open.push_back({path + "/", tree(hex_of(git_tree_entry_id(entry)))});
      } else if (git_tree_entry_type(entry) == GIT_OBJECT_BLOB) {
        files.emplace(std::move(path), hex_of(git_tree_entry_id(entry)));
      }
    }
  }
  return files;
}

}  // namespace ossilar::source
