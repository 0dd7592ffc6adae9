// What git keeps of earlier versions: the text of a file by its blob's id, and how the trees of two commits
// differ. Citations are compared with the text that was cited (workers/wiki/citing), and
// operations/affected.cc asks what a change touches.
//
// Each object's file is looked at before libgit2 opens it, for the reason that git_files.h gives. Objects
// that the repository borrows from another one (objects/info/alternates) lie outside it and are not read.
//
// Nothing is written, so a failure leaves nothing behind.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/git.h"

namespace ossilar::source {

// The id that git gives a file with this content: 40 hexadecimal digits.
std::string blob_id(std::string_view content);

// A file that differs between two trees. A side without the file has "" as its blob.
struct TreeChange {
  std::string path;  // UTF-8; others are left out
  std::string before;
  std::string after;
};

// Thread-safety: one thread at a time; different objects on different threads are fine.
class GitObjects {
 public:
  // `root` as for read_checkout(). Outside git, and where objects are borrowed, it knows no object. Throws
  // what open_repository() throws, and utils::Error for a pack that is no regular file.
  explicit GitObjects(std::filesystem::path root);
  ~GitObjects();

  // Why objects cannot be had, in words that follow "because"; "" if they can.
  const std::string& hindrance() const { return hindrance_; }

  // The content of a blob, none when the repository does not have it. Throws utils::Error for one that is
  // damaged.
  std::optional<std::string> blob(const std::string& id);

  // The id of the commit that `revision` names: a branch, a tag, HEAD or (the beginning of) an id, with any
  // number of ~N and ^N behind it. Throws utils::ConfigError, which says what is wrong, for any other text.
  std::string commit(const std::string& revision);

  // The newest commit that both have in their past; none when there is none, or not all of it is here.
  std::optional<std::string> merge_base(const std::string& commit, const std::string& other);

  // All files of a commit: path to blob. None when the commit is not here, as in a shallow clone.
  std::optional<std::map<std::string, std::string>> files(const std::string& commit);

  // How two commits differ, in the order of paths; folders with the same content are not opened. Throws
  // utils::Error when a tree is missing.
  std::vector<TreeChange> changes(const std::string& before, const std::string& after);

  // The files that git would commit now: path to blob, from its index. Empty outside git.
  std::map<std::string, std::string> staged() const;

 private:
  struct Walk;
  void look_at_object(const std::string& id) const;
  void look_at_named(const std::string& name) const;
  GitHandle<git_tree> tree(const std::string& id);
  GitHandle<git_tree> tree_of_commit(const std::string& id);

  const std::filesystem::path root_;
  GitHandle<git_repository> repository_;
  std::filesystem::path directory_;  // git's own, and the one that linked working trees share
  std::filesystem::path common_;
  std::string hindrance_;
};

}  // namespace ossilar::source
