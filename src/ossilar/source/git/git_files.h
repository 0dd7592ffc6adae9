// Checks a repository's own files before libgit2 opens them. libgit2 blocks on a pipe until somebody writes
// into it, allocates whatever size a file has, and reads the files that a configuration includes, wherever
// they lie. git.cc checks before it opens a repository, checkout.cc before it reads a reference.
//
// A file that is swapped in between the check and libgit2's reading is not noticed.
//
// Thread-safety: every function may be called from any thread. Nothing is written, so a failure leaves
// nothing behind.
#pragma once

#include <filesystem>

namespace ossilar::source {

// The git directory of the working tree at `root`: `.git` itself, symbolic links followed, or the directory
// that the file `.git` names. It need not exist. Throws utils::Error for a `.git` that is neither, or cannot
// be read.
std::filesystem::path git_directory_of(const std::filesystem::path& root);

// Throws utils::Error, which names the file and what to do, unless all files that libgit2 reads to open the
// git directory `directory`, its configuration and its index are regular files of a size that git writes, and
// the configuration includes no other files. A missing file, or a directory in its place, is left to libgit2.
void look_at_git_files(const std::filesystem::path& directory);

// The same check for the file of one reference, such as DIRECTORY/refs/heads/main, and for that of one
// object.
void look_at_reference(const std::filesystem::path& file);
void look_at_object(const std::filesystem::path& file);

// The same check for the packs below the git directory `common`, which linked working trees share.
void look_at_packs(const std::filesystem::path& common);

}  // namespace ossilar::source
