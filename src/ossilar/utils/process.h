// Child processes.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ossilar::utils {

struct ProcessResult {
  int exit_code = 0;   // of a child that exited; 128 + the signal of one that was killed
  std::string output;  // its standard output
  std::string errors;  // the first 64 KiB of its standard error
};

// Runs `arguments` (the program first, looked up in PATH; no shell) with `input` as its standard input, and
// returns when it has ended and closed its outputs. No descriptor of this process but those three reaches the
// child. Throws IoError when the program cannot be started (error() is ENOENT when there is none of that
// name).
//
// Thread-safety: may be called from any thread.
ProcessResult run_process(const std::vector<std::string>& arguments, std::string_view input);

}  // namespace ossilar::utils
