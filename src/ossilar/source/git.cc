#include "ossilar/source/git.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <system_error>

#include "ossilar/source/git_files.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

// Only the index and HEAD are read, and nothing that a configuration names is ever run. So it is safe to read
// a checkout that belongs to someone else, as in a container, and no user's configuration is needed to do it.
void set_options() {
  git_libgit2_opts(GIT_OPT_SET_OWNER_VALIDATION, 0);
  for (const auto level : {GIT_CONFIG_LEVEL_SYSTEM, GIT_CONFIG_LEVEL_XDG, GIT_CONFIG_LEVEL_GLOBAL}) {
    git_libgit2_opts(GIT_OPT_SET_SEARCH_PATH, level, "");
  }
}

[[noreturn]] void throw_bare(const std::filesystem::path& root) {
  throw utils::Error(root.string() + " is a bare git repository; run ossilar in a checkout of it");
}

// What cannot be looked at is not taken for absent: outside git the same pages are of another branch.
bool holds_git(const std::filesystem::path& root) {
  std::error_code error;
  const auto status = std::filesystem::symlink_status(root / ".git", error);
  if (status.type() == std::filesystem::file_type::not_found) return false;
  if (error) throw utils::IoError("cannot look at " + (root / ".git").string(), error.value());
  return true;
}

// By what libgit2 takes for one; nothing is opened.
bool is_bare_repository(const std::filesystem::path& root) {
  std::error_code error;
  return std::filesystem::exists(root / "HEAD", error) &&
         std::filesystem::is_directory(root / "objects", error) &&
         std::filesystem::is_directory(root / "refs", error);
}

// Opened as a bare one: libgit2 1.5 leaks memory for each setting when it opens a checkout whose
// configuration is of version 1, and the working tree is not its business here.
GitHandle<git_repository> open_git_directory(const std::filesystem::path& directory) {
  git_repository* opened = nullptr;
  const int result = git_repository_open_bare(&opened, directory.c_str());
  return GitHandle<git_repository>(result < 0 ? nullptr : opened);
}

// Whether the extension changes nothing about how the index and HEAD read.
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
  // A worktree may belong to a bare repository; its own directory is not the one with the configuration.
  const std::string_view own = git_repository_path(repository);
  int is_bare = 0;
  git_config_get_bool(&is_bare, config.get(), "core.bare");
  if (is_bare != 0 && own == git_repository_commondir(repository)) throw_bare(root);
}

}  // namespace

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
