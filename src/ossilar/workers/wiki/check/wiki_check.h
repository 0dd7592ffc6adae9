// Whether a wiki is whole: its files, its rows and what is derived from them; and setting right what can be.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/check/finding.h"

namespace ossilar::workers::wiki {

struct CheckReport {
  std::size_t pages = 0;          // that are stored
  std::vector<Finding> fixed;     // with `fix`: what was found and is gone
  std::vector<Finding> findings;  // what is left

  // Whether nothing is wrong; an unverified page is told of, and that is all.
  bool is_clean() const;
};

struct CheckOptions {
  bool fix = false;
  std::string writer;  // names this program to those who wait for its lock
  utils::Progress indexing = {};
};

// Checks the wiki of the repository at `root` under its write lock, so that no save is seen half made. A
// damaged database is a finding, and with `fix` it is set aside and made anew from the wiki's files. `fix`
// takes page files as they stand and never changes one. As every command does, both first take over what came
// by version control and bring a wiki of an older format forward; beyond that a check changes nothing. Cut
// short at any point, `fix` can be run again.
//
// Throws utils::ConfigError for a repository that was never set up, _WikiBusy, and utils::Error for what it
// cannot read.
CheckReport check_wiki(const std::filesystem::path& root, const CheckOptions& options);

}  // namespace ossilar::workers::wiki
