// What `ossilar doctor` looks at: whether this machine has what ossilar relies on, and whether it does what
// is promised of it. Each thing is tried rather than looked up where that is possible.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace ossilar::cli {

struct Examined {
  std::string about;  // "symbols", "locks"
  bool is_fine = true;
  std::string found;   // what is there, or what is odd about it
  std::string advice;  // how to mend it; "" when there is nothing to mend
};

// Examines the machine, and the repository at `root`: git, configuration, symbol tool, file system, locks,
// notifications, clients' files. It tries the file system by files of its own in `.ossilar`, which it
// removes; where there is no wiki yet, by none. What cannot be examined is a finding and no failure.
//
// Threads: one. Takes no lock that others wait for.
std::vector<Examined> examine(const std::filesystem::path& root);

}  // namespace ossilar::cli
