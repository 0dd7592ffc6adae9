// The command line as a whole. main.cc calls run() once, on the main thread.
//
// A failure ends here: what a command throws becomes an exit code, one line on standard error and, with
// --json, a document. What it leaves on disk is said where the work is done (commands.h, workers/wiki).
#pragma once

namespace ossilar::cli {

// Parses the arguments, runs the command and gives the exit code: 0 done, 1 refused or something found, 2
// wrong usage or configuration, 3 a failure. To be called once in a process, as it sets up the log sink.
int run(int argc, char** argv);

}  // namespace ossilar::cli
