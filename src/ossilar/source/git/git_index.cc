// git itself tells by size and time whether a file is as it was staged, and reads it only where they do not
// tell: a file that was written in the moment in which the index was may have changed after git looked at it
// (git's Documentation/technical/racy-git.txt).
#include "ossilar/source/git/git_index.h"

#include <array>
#include <string_view>

#include "ossilar/source/git/git_objects.h"
#include "ossilar/utils/file_stamp.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// A kind of index that git reads and libgit2 does not: a word by which libgit2's message tells it, and how to
// make git write a plain one. ("link" and "sdir" are the names of the extensions that such an index has.)
struct IndexKind {
  std::string_view sign;
  std::string_view advice;
};
constexpr std::array<IndexKind, 3> kUnreadableIndexes{{
    {"'link'",
     "it is a split index; run `git config core.splitIndex false; git update-index --no-split-index`"},
    {"'sdir'", "it is a sparse index; run `git sparse-checkout reapply --no-sparse-index`"},
    {"checksum",
     "it is damaged or has no checksum; if git can read it, run `git config index.skipHash false; git "
     "update-index --force-write-index`"},
}};

[[noreturn]] void throw_unreadable_index(const std::filesystem::path& root) {
  const utils::Error error = git_error("cannot read the index of the git repository at " + root.string());
  const std::string_view reason = error.what();
  // Only the part after the last colon is searched: the path before it may hold any word.
  for (const IndexKind& kind : kUnreadableIndexes) {
    if (reason.find(kind.sign, reason.rfind(": ")) != reason.npos)
      throw utils::Error(std::string(reason) + " (" + std::string(kind.advice) + ")");
  }
  throw error;
}

std::int64_t nanoseconds_of(const git_index_time& time) {
  return std::int64_t{time.seconds} * kNanosecondsPerSecond + time.nanoseconds;
}

}  // namespace

GitHandle<git_index> read_index(git_repository* repository, const std::filesystem::path& root) {
  git_index* opened = nullptr;
  const int result = git_repository_index(&opened, repository);
  GitHandle<git_index> index(opened);
  if (result < 0) throw_unreadable_index(root);
  return index;
}

std::map<std::string, StagedFile> staged_files(const std::filesystem::path& root) {
  std::map<std::string, StagedFile> files;
  const auto repository = open_repository(root);
  if (!repository) return files;
  const utils::FileStamp written = utils::stamp_of(index_file_of(repository.get()));
  const GitHandle<git_index> index = read_index(repository.get(), root);
  const std::size_t count = git_index_entrycount(index.get());
  for (std::size_t i = 0; i < count; ++i) {
    const git_index_entry* entry = git_index_get_byindex(index.get(), i);
    if (entry->mode == GIT_FILEMODE_COMMIT || utils::first_invalid_utf8(entry->path)) continue;
    const bool is_in_conflict = git_index_entry_stage(entry) != 0;
    const std::int64_t modified = nanoseconds_of(entry->mtime);
    files[entry->path] = {is_in_conflict ? "" : hex_of(&entry->id), entry->file_size, modified,
                          modified < written.modified};
  }
  return files;
}

}  // namespace ossilar::source
