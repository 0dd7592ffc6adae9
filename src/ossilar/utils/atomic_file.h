// Replaces files whole or not at all, and moves them.
//
// Used for page files (workers/wiki/repo_facts.cc), lists and kept texts (workers/wiki/pages), a new wiki's
// files (workers/wiki/host) and the configurations of agents' clients (cli).
//
// Thread-safety: every function may be called from any thread. Of two writers of one file the later rename
// wins, and the file is whole; a caller that must not undo the other's work holds the write lock.
//
// Failure: IoError, which names the file. The old file is then still there. If only the last sync failed,
// that of the directory, the new one is in its place but may not be on disk. A process that is killed leaves
// at most temporary files (see leftovers()) and, of atomic_exchange(), a former file.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/files.h"

namespace ossilar::utils {

// Replaces the file `path` (absolute) by `text`. At every moment, also after a crash or a power cut, the file
// is the old one or the new one, whole; when this returns, the new one is on disk. Returns the stamp of the
// new file. Creates missing directories and keeps the mode of an existing file. Refuses a target that is a
// symbolic link or no regular file, and a path with a symbolic link on the way: IoError, with nothing
// changed.
FileStamp atomic_write(const std::filesystem::path& path, std::string_view text);

// The same for several files of one directory (absolute), with one sync of the directory for all. All texts
// are on disk before the first file is replaced, so a full disk replaces none. Then they are replaced in the
// order of `files`; a failure there leaves the files before it new and the others old. Returns their stamps
// in that order.
struct NamedText {
  std::string name;       // without a directory
  std::string_view text;  // must stay valid during the call
};
std::vector<FileStamp> atomic_write_all(const std::filesystem::path& directory,
                                        const std::vector<NamedText>& files);

// Like atomic_write(), but keeps the file that was replaced, if there was one: it lies beside the new one as
// former_file(path), for the caller to look at and then to remove. The two swap places in one system call
// (renameat2(2), RENAME_EXCHANGE), so an edit of the last moment is in the former file. On a file system that
// cannot swap, the old file gets a second name before it is replaced (a hard link, or a copy where there are
// no hard links); an edit between these two calls may be lost. Refuses when a former file is already there:
// IoError (EEXIST), with nothing changed.
FileStamp atomic_exchange(const std::filesystem::path& path, std::string_view text);

// Where atomic_exchange() leaves the file that was at `path`: a hidden name in the same directory, always the
// same for one path.
std::filesystem::path former_file(const std::filesystem::path& path);

// Moves the file `from` to `to` (both absolute) and never replaces a file. It stays the same file, so a
// process that has it open goes on writing to it. Creates the missing directories of `to`. When this returns,
// the new name is on disk. Returns false, with no file moved, when the name is taken, when the two lie on
// different file systems, or when the file system cannot rename without replacing. Any other failure is an
// IoError.
bool move_file(const std::filesystem::path& from, const std::filesystem::path& to);

struct Leftover {
  std::string name;
  bool may_be_new;  // it is empty: its writer may have created it just now and not locked it yet
};

// The temporary files that interrupted writes left in `directory` (absolute; its subdirectories are not
// searched), without those that are still being written. Empty when there is no such directory. Throws
// IoError when it cannot be listed. Called by `check` (workers/wiki/check/inspection.cc).
std::vector<Leftover> leftovers(const std::filesystem::path& directory);

// Removes them. A file that was created but not yet locked is removed too: its writer notices and starts
// again under another name. Throws IoError for the first that cannot be removed. Called by `check --fix`.
void remove_leftovers(const std::filesystem::path& directory);

}  // namespace ossilar::utils
