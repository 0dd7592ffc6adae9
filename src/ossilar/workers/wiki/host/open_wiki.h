// Setting a wiki up (`ossilar init`, and check/repair.cc for files that are missing), and opening one that is
// set up (cli/ for a command, check/wiki_provider.cc for a server, check/wiki_check.cc for a check).
//
// Threads: any; the functions share nothing. A failure leaves what was created before it; the next call
// creates the rest.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

// The paths of the wiki of the repository at `root`, an absolute path free of symbolic links. Throws
// utils::ConfigError when the wiki's directory, or a directory on the way to it, is a symbolic link.
WikiPaths wiki_paths(const std::filesystem::path& root, const WikiConfig& config);

// Creates what is missing of a wiki's files: `ossilar.toml` with its defaults as comments, the pages
// directory, the wiki's `.gitattributes`, and `.ossilar` with its own `.gitignore`. What is there is left as
// it is. Gives the paths that it created, relative to `root`; directories end in "/". Throws as wiki_paths(),
// and utils::ConfigError for a configuration that is wrong, utils::IoError for what cannot be created.
std::vector<std::string> set_up_wiki(const std::filesystem::path& root);

// Whether the process that opens a wiki runs one command or stays, as a server does: only the latter watches
// the sources (Wiki::Services::stays).
enum class Process { one_command, stays };

// Opens the wiki of the repository at `root`. `writer` names this program to others that wait for its lock.
// Throws utils::ConfigError for a repository that was never set up and for a configuration that is wrong,
// store::StorageError for a database that cannot be used, utils::Error for a git directory that cannot be
// read.
std::unique_ptr<Wiki> open_wiki(const std::filesystem::path& root, const std::string& writer,
                                Process process = Process::one_command);

}  // namespace ossilar::workers::wiki
