// Whether a wiki is whole: its files, its rows and what is derived from them; and setting right what can be.
// `ossilar check` (cli/check.cc) and the tool check_wiki (operations/check_wiki.cc) call it. Threads: any.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/check/finding.h"

namespace ossilar::workers::wiki {

class Wiki;

struct CheckReport {
  std::size_t pages = 0;          // that are stored
  std::vector<Finding> fixed;     // with `fix`: what was found and is gone
  std::vector<Finding> findings;  // what is left

  bool is_strict = false;  // as in the options

  // Whether nothing is wrong. Kinds that leave the wiki clean (finding.h) count in a strict check alone.
  bool is_clean() const;
};

struct CheckOptions {
  bool fix = false;
  bool is_strict = false;  // whatever is found counts
  // Kinds of findings, by name: no others are reported, and none of these. Unknown names find nothing.
  std::vector<std::string> only = {};
  std::vector<std::string> ignored = {};
  std::string writer;  // names this program to those who wait for its lock
  utils::Progress indexing = {};
};

// Checks the wiki of the repository at `root` under its write lock, so that no save is seen half made. A
// damaged database is a finding; with `fix` it is set aside and made anew from the wiki's files. `fix` takes
// page files as they stand and never changes one. With and without it, the check first takes over what came
// by version control and brings a wiki of format 1 forward, as every command does; beyond that a check
// without `fix` changes nothing. If `fix` is cut short at any point, it can be run again.
//
// Throws utils::ConfigError for a repository that was never set up, _WikiBusy or (while a database is set
// aside) store::LockBusy when the write lock cannot be had, and utils::Error for what it cannot read. Opens a
// wiki of its own.
CheckReport check_wiki(const std::filesystem::path& root, const CheckOptions& options);

// The same over a wiki that is open, without `fix`, whatever the options say: nothing is set right. Scans the
// sources. Throws the same.
CheckReport check_wiki(Wiki& wiki, const CheckOptions& options);

}  // namespace ossilar::workers::wiki
