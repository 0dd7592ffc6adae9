// What a change changes: the files in which two states of a repository differ, and their texts on both sides.
// workers/wiki/asking/affected.cc asks which pages rest on them.
//
// Thread-safety: one thread at a time. Nothing is written, so a failure leaves nothing behind.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/source/git/git_objects.h"
#include "ossilar/source/git/tree_changes.h"

namespace ossilar::source {

enum class Side {
  working,  // the tracked files as they lie in the working tree
  staged,   // what git would commit now
  commit
};

// What is compared, as a user of git diff has it.
struct Comparison {
  std::string from = "HEAD";  // a revision, as commit_named() has it
  Side to = Side::working;
  std::string commit;  // a revision, for Side::commit
};

class Change {
 public:
  // Throws utils::ConfigError for a revision that is none, utils::Error for a repository that cannot be read.
  Change(std::filesystem::path root, const Comparison& compared);

  // In the order of paths. A changed file of the working tree has the id that its content would get.
  const std::vector<TreeChange>& files() const { return files_; }

  // The text of a file on one side; none where it is not there, is no text, or is too large to be indexed.
  std::optional<std::string> before(const TreeChange& file) const { return text_of(file.before); }
  std::optional<std::string> after(const TreeChange& file) const;

 private:
  std::optional<std::string> text_of(const std::string& blob) const;

  const std::filesystem::path root_;
  const GitObjects objects_;
  const bool is_working_;
  std::vector<TreeChange> files_;
};

}  // namespace ossilar::source
