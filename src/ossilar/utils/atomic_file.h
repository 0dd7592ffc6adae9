// Replacing files whole or not at all, and moving them.
//
// Thread-safety: every function may be called from any thread.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/files.h"

namespace ossilar::utils {

// Replaces the file `path` (absolute) by `text`: at every instant, a crash or power cut included, the file is
// the old one or the new one, whole, and when this returns the new one is on disk. Gives the stamp of the new
// file. Missing directories are created. An existing file's mode is kept. Refuses, with IoError and nothing
// changed, a target that is no regular file, a symbolic link in its place, and a path with a symbolic link on
// the way.
FileStamp atomic_write(const std::filesystem::path& path, std::string_view text);

// The same for several files of one directory: each is replaced whole, one after the other, when all are
// written. The directory is synced once, which spares time.
struct NamedText {
  std::string name;  // without a directory
  std::string_view text;
};
std::vector<FileStamp> atomic_write_all(const std::filesystem::path& directory,
                                        const std::vector<NamedText>& files);

// The same as atomic_write(), but the file that was there when the new one took its place is not lost: it
// lies beside it as former_file(path), for the caller to look at and then to remove. The two swap places in
// one call (renameat2(2), RENAME_EXCHANGE), so whatever a hand did until then is in that file. A file system
// that cannot swap gets a second name for the old file first, or a copy where it has no second names; what a
// hand does between these two calls may then be lost. Refuses, with IoError and nothing changed, when a
// former file is there already.
FileStamp atomic_exchange(const std::filesystem::path& path, std::string_view text);

// Where atomic_exchange() leaves what was at `path`: a hidden name in the same directory, the same for the
// same path.
std::filesystem::path former_file(const std::filesystem::path& path);

// Moves the file `from` to `to` (both absolute), in whose directory, made where it is missing, no other file
// has that name; the move is on disk when this returns. False, with nothing changed, when they lie on
// different file systems or the name is taken. Throws IoError.
bool move_file(const std::filesystem::path& from, const std::filesystem::path& to);

struct Leftover {
  std::string name;
  bool may_be_new;  // empty: one that is just being made looks the same for a moment
};

// The temporary files that writes left in `directory` (absolute, not what is below it) because they were cut
// short; those of calls still at work are not among them. None where the directory is not there.
std::vector<Leftover> leftovers(const std::filesystem::path& directory);

// Removes them, also when one has just begun to write: that one takes another name.
void remove_leftovers(const std::filesystem::path& directory);

}  // namespace ossilar::utils
