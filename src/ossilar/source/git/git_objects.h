// What git keeps of earlier versions: the content of a file by its blob's id, and which files a commit had.
// Citations are compared with what was cited (workers/wiki/host/past_texts.cc), and a change is read before
// it is merged (source/change.cc).
//
// Each object's file is looked at before libgit2 opens it, for the reason that git_files.h gives. Objects
// that the repository borrows from another one (objects/info/alternates) lie outside it and are not read.
//
// Nothing is written, so a failure leaves nothing behind.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "ossilar/source/git/git.h"

namespace ossilar::source {

// The id that git gives a file with this content: 40 hexadecimal digits.
std::string blob_id(std::string_view content);

// The files of a commit: path to blob. Paths that are not UTF-8 are left out.
using CommitFiles = std::map<std::string, std::string>;

// Thread-safety: one thread at a time; different objects on different threads are fine.
class GitObjects {
 public:
  // `root` as for read_checkout(). Outside git, and where objects are borrowed, it knows no object. Throws
  // what open_repository() throws, and utils::Error for a pack that is no regular file.
  explicit GitObjects(std::filesystem::path root);

  // Why no object can be had, in words that follow a colon; "" where they can.
  const std::string& hindrance() const { return hindrance_; }

  // The content of a blob, none when the repository does not have it. Throws utils::Error for one that is
  // damaged.
  std::optional<std::string> blob(const std::string& id) const;

  // All files of a commit. None when the commit is not here, as in a shallow clone. Throws utils::Error when
  // a folder of it is missing.
  std::optional<CommitFiles> files(const std::string& commit) const;

  // ---- For what is built on this (revisions.cc, tree_changes.cc).

  // Null where no object can be had.
  git_repository* repository() const { return repository_.get(); }
  // Throws utils::Error unless the object's file is one that libgit2 can open, or is missing.
  void look_at(const std::string& id) const;
  // Throws utils::Error when it is not here.
  GitHandle<git_tree> tree(const std::string& id) const;
  // Null when the commit is not here.
  GitHandle<git_tree> tree_of_commit(const std::string& id) const;

 private:
  const std::filesystem::path root_;
  GitHandle<git_repository> repository_;  // null where no object can be had
  std::filesystem::path common_;          // git's directory, the one that linked working trees share
  std::string hindrance_;
};

// An id as git writes it.
std::string hex_of(const git_oid* id);

}  // namespace ossilar::source
