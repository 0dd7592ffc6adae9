// libgit2, as far as this room needs it: handles that free themselves, and its failures as exceptions.
//
// Thread-safety: every function may be called from any thread; one handle belongs to one thread at a time.
#pragma once

#include <git2.h>

#include <filesystem>
#include <memory>
#include <string>

#include "ossilar/utils/error.h"

namespace ossilar::source {

struct GitFree {
  void operator()(git_repository* repository) const { git_repository_free(repository); }
  void operator()(git_config* config) const { git_config_free(config); }
  void operator()(git_config_iterator* settings) const { git_config_iterator_free(settings); }
  void operator()(git_index* index) const { git_index_free(index); }
  void operator()(git_reference* reference) const { git_reference_free(reference); }
};

template <class Handle>
using GitHandle = std::unique_ptr<Handle, GitFree>;

// Makes libgit2 ready; to be called before any other function of it.
void use_libgit2();

// The repository whose working tree has `root` as its root, or null when `root` holds no `.git`. Runs no
// program, and opens nothing that look_at_git_files() refuses. Throws Error for a repository that is damaged,
// bare, or refused there.
GitHandle<git_repository> open_repository(const std::filesystem::path& root);

// Where the repository keeps what it tracks, for a linked working tree too; the file need not be there.
std::filesystem::path index_file_of(git_repository* repository);

// The failure of the last libgit2 call of this thread: "WHAT: its reason".
utils::Error git_error(const std::string& what, utils::Place place = utils::Place::current());

}  // namespace ossilar::source
