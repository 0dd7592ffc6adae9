// The scripts by which a shell completes the command line: each asks `ossilar complete` for the candidates.
//
// Thread-safety: any thread. The texts live as long as the program.
#pragma once

#include <array>
#include <string_view>

namespace ossilar::cli {

struct Shell {
  std::string_view name;
  std::string_view script;
  std::string_view file;  // where a package puts it, relative to the prefix
};

// bash, zsh and fish.
const std::array<Shell, 3>& shells();

}  // namespace ossilar::cli
