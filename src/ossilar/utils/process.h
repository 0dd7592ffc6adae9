// Runs a program and returns what it printed. Used for ctags (source/ctags.cc), and by tests.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ossilar::utils {

struct ProcessResult {
  int exit_code = 0;   // of a child that exited; 128 + the signal of one that was killed
  std::string output;  // its standard output, whole
  std::string errors;  // the first 64 KiB of its standard error
};

// Runs `arguments` (the program first, looked up in PATH; no shell) with `input` as its standard input.
// Returns when the child has ended and its outputs are closed, also by processes that it started; there is no
// time limit. The child gets no descriptor of this process but those three. A child that does not read its
// input is no failure. Throws IoError when the program cannot be started; error() is ENOENT when there is
// none of that name. An IoError later, from poll(2) or waitpid(2), leaves a child whose pipes are closed.
//
// Thread-safety: may be called from any thread.
ProcessResult run_process(const std::vector<std::string>& arguments, std::string_view input);

}  // namespace ossilar::utils
