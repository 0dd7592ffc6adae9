// The hook that git runs before each commit: it follows citations that the commit moves, and names the pages
// that it makes stale. `ossilar init --hook` writes it; init.cc calls this, on the main thread.
//
// Failure: a hook of somebody else's is an exception before anything is written.
#pragma once

#include <filesystem>
#include <string>

#include "ossilar/cli/output.h"

namespace ossilar::cli {

// Two steps, for the reason that ClientFiles gives.
class GitHook {
 public:
  // Looks where git keeps the hooks of the repository at `root`; `wiki_dir` is the wiki's directory relative
  // to it. Writes nothing. Throws utils::ConfigError, with what to do, when there is no git repository, when
  // another hook is there, or when git is configured to take its hooks from elsewhere.
  GitHook(const std::filesystem::path& root, const std::string& wiki_dir);

  // Writes the hook unless it is there as it should be. Throws utils::IoError.
  void write() const;

  // Both say what was written.
  void print(Output& output) const;
  Map document() const;

 private:
  std::filesystem::path file_;
  std::string text_;
  bool is_changed_ = false;
};

}  // namespace ossilar::cli
