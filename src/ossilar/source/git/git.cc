// A repository is opened in an order that lets nothing outside it take part. First libgit2's options, which
// leave out the configuration of the user and the system. Then whether there is a `.git` at all. Then the
// look at git's own files, because libgit2 itself would block on a pipe or read an included file anywhere.
// Only then does libgit2 open it, as a bare repository. Such an opening checks neither the extensions nor
// core.bare, so both are checked last: refused are extensions that may change the format of index and HEAD,
// and a repository without a working tree.
#include "ossilar/source/git/git.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <system_error>

#include "ossilar/source/git/git_files.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

// The index, HEAD and objects are read, and nothing that a configuration names is run. So a checkout that
// belongs to another user, as in a container, is safe to read without the check of its owner. The search
// paths are empty: the configuration of the user and the system is not needed, and lies outside the
// repository.
void set_options() {
  git_libgit2_opts(GIT_OPT_SET_OWNER_VALIDATION, 0);
  for (const auto level : {GIT_CONFIG_LEVEL_SYSTEM, GIT_CONFIG_LEVEL_XDG, GIT_CONFIG_LEVEL_GLOBAL}) {
    git_libgit2_opts(GIT_OPT_SET_SEARCH_PATH, level, "");
  }
}

[[noreturn]] void throw_bare(const std::filesystem::path& root) {
  throw utils::Error(root.string() + " is a bare git repository; run ossilar in a checkout of it");
}

// Only "not found" means no `.git`; any other failure is thrown. Taken for a folder outside git, the same
// pages would belong to another branch and be adopted anew.
bool holds_git(const std::filesystem::path& root) {
  std::error_code error;
  const auto status = std::filesystem::symlink_status(root / ".git", error);
  if (status.type() == std::filesystem::file_type::not_found) return false;
  if (error) throw utils::IoError("cannot stat " + (root / ".git").string(), error.value());
  return true;
}

// By the three names that libgit2 goes by itself; nothing is opened. What cannot be looked at counts as
// absent.
bool is_bare_repository(const std::filesystem::path& root) {
  std::error_code error;
  return std::filesystem::exists(root / "HEAD", error) &&
         std::filesystem::is_directory(root / "objects", error) &&
         std::filesystem::is_directory(root / "refs", error);
}

// Opened as a bare repository, for two reasons. libgit2 1.5 leaks memory for each setting when it opens a
// checkout whose configuration has version 1, and it need not know the working tree. The reason of a failure
// stays in libgit2, for git_error().
GitHandle<git_repository> open_git_directory(const std::filesystem::path& directory) {
  git_repository* opened = nullptr;
  const int result = git_repository_open_bare(&opened, directory.c_str());
  return GitHandle<git_repository>(result < 0 ? nullptr : opened);
}

// Whether the extension leaves the format of index, HEAD and objects as it is. Those of the list do nothing,
// say that objects may be missing or are kept, which a reader meets anyway, or where working trees and
// settings lie. An unknown one is refused, as it may mean anything.
bool is_harmless(std::string_view extension, std::string_view value) {
  static constexpr std::array<std::string_view, 5> kHarmless = {"noop", "partialclone", "preciousobjects",
                                                                "relativeworktrees", "worktreeconfig"};
  if (extension == "objectformat") return value == "sha1";
  if (extension == "refstorage") return value == "files";
  return std::find(kHarmless.begin(), kHarmless.end(), extension) != kHarmless.end();
}

void refuse_unknown_extensions(git_config* config, const std::string& where) {
  static constexpr std::string_view kSection = "extensions.";
  git_config_iterator* opened = nullptr;
  if (git_config_iterator_new(&opened, config) < 0)
    throw git_error("cannot read the configuration of " + where);
  const GitHandle<git_config_iterator> settings(opened);
  for (git_config_entry* entry = nullptr; git_config_next(&entry, settings.get()) == 0;) {
    const std::string_view name = entry->name;
    const std::string_view value = entry->value == nullptr ? "" : entry->value;
    if (name.substr(0, kSection.size()) == kSection && !is_harmless(name.substr(kSection.size()), value)) {
      throw utils::Error(where + " uses " + utils::printable(name) + " = " + utils::printable(value) +
                         ", which ossilar cannot read");
    }
  }
}

void refuse_unreadable(git_repository* repository, const std::filesystem::path& root,
                       const std::string& where) {
  git_config* opened = nullptr;
  if (git_repository_config_snapshot(&opened, repository) < 0) {
    throw git_error("cannot read the configuration of " + where);
  }
  const GitHandle<git_config> config(opened);
  refuse_unknown_extensions(config.get(), where);
  // A linked working tree may belong to a bare repository: core.bare then speaks of the common directory,
  // which is not the tree's own. The result is ignored because a missing setting leaves is_bare at 0.
  const std::string_view own = git_repository_path(repository);
  int is_bare = 0;
  git_config_get_bool(&is_bare, config.get(), "core.bare");
  if (is_bare != 0 && own == git_repository_commondir(repository)) throw_bare(root);
}

}  // namespace

// The static makes the first caller initialise while others wait; when that throws, the next call tries
// again. There is no shutdown, as other threads may use libgit2 until the process ends.
void use_libgit2() {
  static const bool done = [] {
    if (git_libgit2_init() < 0) throw git_error("cannot initialise libgit2");
    set_options();
    return true;
  }();
  static_cast<void>(done);
}

utils::Error git_error(const std::string& what, utils::Place place) {
  const auto* error = git_error_last();
  const std::string reason = error == nullptr ? "unknown failure" : utils::valid_utf8(error->message);
  return utils::Error(what + ": " + reason, place);
}

GitHandle<git_repository> open_repository(const std::filesystem::path& root) {
  use_libgit2();
  if (!holds_git(root)) {
    if (is_bare_repository(root)) throw_bare(root);
    return nullptr;
  }
  const std::string where = "the git repository at " + root.string();
  const std::filesystem::path directory = git_directory_of(root);
  look_at_git_files(directory);
  auto repository = open_git_directory(directory);
  if (repository == nullptr) throw git_error(where + " cannot be read");
  refuse_unreadable(repository.get(), root, where);
  return repository;
}

std::filesystem::path index_file_of(git_repository* repository) {
  return std::filesystem::path(git_repository_path(repository)) / "index";
}

}  // namespace ossilar::source
