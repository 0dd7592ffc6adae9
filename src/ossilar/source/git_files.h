// The look at a repository's own files before libgit2 opens them. libgit2 waits for ever for whoever writes
// into a pipe, takes memory for whatever size a file has, and reads what a configuration includes, wherever
// that lies.
//
// What is put in a file's place between the look and libgit2's reading is not seen.
//
// Thread-safety: every function may be called from any thread.
#pragma once

#include <filesystem>

namespace ossilar::source {

// The directory that `.git` in `root` is, symbolic links followed, or that it names as a file. It need not be
// there. Throws utils::Error when `.git` is neither.
std::filesystem::path git_directory_of(const std::filesystem::path& root);

// Throws utils::Error, naming the file and what to do, unless all that libgit2 reads to open the git
// directory `directory`, its configuration and its index are regular files of a size that git writes, and the
// configuration includes no other files. What is not there, and what is a directory, is left to libgit2.
void look_at_git_files(const std::filesystem::path& directory);

// The same for the file of one reference, such as DIRECTORY/refs/heads/main.
void look_at_reference(const std::filesystem::path& file);

}  // namespace ossilar::source
