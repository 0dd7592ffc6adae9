// What every write lock does within its process, whatever keeps other processes out: threads that share one
// lock object queue at a gate, and only the one that has entered competes for the lock itself.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>

#include "ossilar/store/write_lock.h"
#include "ossilar/utils/task.h"

namespace ossilar::store {

// When a call of acquire() began, and when it gives up.
struct LockAttempt {
  using Clock = std::chrono::steady_clock;
  explicit LockAttempt(std::chrono::milliseconds patience);
  Clock::time_point began = Clock::now();
  Clock::time_point deadline;
};

// "the wiki is being written by `holder`; waited 1.5 s; try again". Suggests to end a holder that is named as
// a process: "process 12 on host (...)".
LockBusy lock_busy(const std::string& holder, LockAttempt::Clock::duration waited);

// Threads enter one at a time, in the order in which they came.
//
// Thread-safety: any thread; leave() only after enter().
class LockGate {
 public:
  // Throws LockBusy at the attempt's deadline, utils::Cancelled within 50 ms after `task` is cancelled.
  void enter(const LockAttempt& attempt, const utils::Task& task);
  void leave();

 private:
  std::mutex mutex_;
  std::condition_variable left_;
  bool entered_ = false;           // guarded by mutex_, as are the next
  std::deque<const void*> queue_;  // one distinct address for each thread that waits
};

// The name of this machine, for messages.
std::string host_name();

}  // namespace ossilar::store
