// Setting a wiki up, and opening one that is set up.
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
// directory, and
// `.ossilar` with its own `.gitignore`. Gives the paths that it created, relative to `root`.
std::vector<std::string> set_up_wiki(const std::filesystem::path& root);

// Whether the process that opens a wiki makes one command of it or stays.
enum class Process { one_command, stays };

// Opens the wiki of the repository at `root`. `writer` names this program to others that wait for its lock.
// Throws utils::ConfigError for a repository that was never set up, and for a configuration that is wrong.
std::unique_ptr<Wiki> open_wiki(const std::filesystem::path& root, const std::string& writer,
                                Process process = Process::one_command);

}  // namespace ossilar::workers::wiki
