#pragma once

namespace ossilar::cli {

// Runs the command line and gives the exit code: 0 done, 1 refused, 2 wrong usage or configuration, 3 a
// failure.
int run(int argc, char** argv);

}  // namespace ossilar::cli
