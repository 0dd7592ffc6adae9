// The part of libgit2 that ossilar needs: handles that free themselves, and failures as exceptions.
// checkout.cc reads HEAD with it, git_index.cc and last_look.cc the index, text_diff.cc and
// line_map.cc compare texts, git_objects.cc reads earlier versions.
//
// Thread-safety: every function may be called from any thread; one handle belongs to one thread at a time.
// Nothing is written to a repository, so a failure leaves nothing behind.
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
  void operator()(git_blob* blob) const { git_blob_free(blob); }
  void operator()(git_commit* commit) const { git_commit_free(commit); }
  void operator()(git_tree* tree) const { git_tree_free(tree); }
  void operator()(git_object* object) const { git_object_free(object); }
};

template <class Handle>
using GitHandle = std::unique_ptr<Handle, GitFree>;

// Initialises libgit2; call it before any other function of libgit2. open_repository() does. Throws
// utils::Error.
void use_libgit2();

// The repository of the working tree at `root`, or null when `root` holds no `.git`. Runs no program, and
// opens nothing that look_at_git_files() refuses. Throws utils::Error for a repository that is damaged, bare,
// refused there, or in a form that libgit2 would misread.
GitHandle<git_repository> open_repository(const std::filesystem::path& root);

// The file in which git keeps the list of tracked files: a linked working tree has its own. It need not
// exist.
std::filesystem::path index_file_of(git_repository* repository);

// "WHAT: REASON", with the reason of the last libgit2 call of this thread that failed. Call it before any
// other call of libgit2.
utils::Error git_error(const std::string& what, utils::Place place = utils::Place::current());

}  // namespace ossilar::source
