// sync looks at files as they lie, so the hook calls it only when they are what is being committed; then all
// that it changes belongs to the commit. The hook never stops a commit: a page may be mended in the next one,
// and CI says whether it was.
//
// git's configuration of the user and the system is not read, as everywhere, so a core.hooksPath of theirs is
// not seen.
#include "ossilar/cli/git_hook.h"

#include <fmt/format.h>

#include <optional>
#include <system_error>

#include "ossilar/source/git/git.h"
#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"

namespace ossilar::cli {
namespace {

namespace fs = std::filesystem;

// By its first lines a hook of ours is known, also one of another version.
constexpr std::string_view kBeginning = R"(#!/bin/sh
# Made by `ossilar init --hook`.
)";

constexpr std::string_view kBody =
    R"(# It follows the citations that this commit moves, so that the pages in it point at its lines, and names those that
# need their author. It stops no commit.
if command -v ossilar >/dev/null; then
  if git diff --quiet; then
    ossilar sync >&2 && git add --update -- '{}'
    ossilar affected >&2
  else
    ossilar affected --staged >&2
  fi
fi
exit 0
)";

std::string hook_text(const std::string& wiki_dir) {
  std::string quoted;  // for the shell, within single quotes
  for (const char c : wiki_dir) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return std::string(kBeginning) + fmt::format(fmt::runtime(kBody), quoted);
}

bool has_own_hooks_path(git_repository* repository) {
  git_config* opened = nullptr;
  if (git_repository_config_snapshot(&opened, repository) != 0)
    throw source::git_error("cannot read the configuration of the git repository");
  const source::GitHandle<git_config> config(opened);
  const char* path = nullptr;
  return git_config_get_string(&path, config.get(), "core.hooksPath") == 0;
}

std::optional<std::string> text_of(const fs::path& file) {
  if (!utils::is_there(file)) return std::nullopt;
  return utils::read_text_file_within(file.parent_path(), file);
}

}  // namespace

GitHook::GitHook(const fs::path& root, const std::string& wiki_dir) : text_(hook_text(wiki_dir)) {
  const auto repository = source::open_repository(root);
  if (!repository) throw utils::ConfigError("--hook: " + root.string() + " is no git repository");
  const std::string advice = "; call `ossilar affected --staged` in it";
  if (has_own_hooks_path(repository.get())) {
    throw utils::ConfigError(
        "--hook: git takes its hooks from core.hooksPath; call `ossilar affected --staged` in the pre-commit "
        "there");
  }
  file_ = fs::path(git_repository_commondir(repository.get())) / "hooks" / "pre-commit";
  const auto there = text_of(file_);
  if (there && !there->starts_with(kBeginning))
    throw utils::ConfigError("--hook: " + file_.string() + " is there already" + advice);
  is_changed_ = there != text_;
}

void GitHook::write() const {
  if (!is_changed_) return;
  utils::atomic_write(file_, text_);
  std::error_code error;
  fs::permissions(file_, fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec,
                  fs::perm_options::add, error);
  if (error) throw utils::IoError("cannot make " + file_.string() + " executable", error.value());
}

void GitHook::print(Output& output) const {
  output.line((is_changed_ ? "Wrote the hook " : "The hook is there: ") + file_.string() +
              "; before each commit it follows moved citations and names stale pages.");
}

Map GitHook::document() const {
  return {{"file", utils::valid_utf8(file_.string())}, {"written", is_changed_}};
}

}  // namespace ossilar::cli
