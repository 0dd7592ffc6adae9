// The signals that end a command which serves until it is told to end. Block them before the first thread
// starts, so that all threads inherit that, and wait for them with sigwait(): the command then ends with its
// destructors.
#pragma once

#include <csignal>

namespace ossilar::cli {

inline sigset_t ending_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

}  // namespace ossilar::cli
