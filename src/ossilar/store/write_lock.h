// The wiki write lock: one holder at a time among all threads, processes and machines that write one wiki.
// Wiki (host/wiki.h) has one, taken for each commit. FileLock (file_lock.h) serves the processes of one
// machine; a database that several machines share brings its own.
#pragma once

#include "ossilar/utils/error.h"
#include "ossilar/utils/task.h"

namespace ossilar::store {

// The lock was not free in time. The message says who holds it, as far as that is known, and how long was
// waited.
class LockBusy : public utils::Error {
 public:
  explicit LockBusy(const std::string& message, utils::Place place = utils::Place::current())
      : Error(message, place) {}
};

// Thread-safety: acquire() and release() may be called from any thread, release() only while the lock is
// held: otherwise it would let another thread in. Not recursive: a thread that acquires again waits for
// itself until the timeout.
class WriteLock {
 public:
  WriteLock() = default;
  WriteLock(const WriteLock&) = delete;
  WriteLock& operator=(const WriteLock&) = delete;
  virtual ~WriteLock() = default;

  // Takes the lock; with `wait` it waits up to the lock's timeout, else it gives up at once. Throws LockBusy
  // when another holds it, utils::Error when it cannot be asked for, and utils::Cancelled within some 50 ms
  // after `task` is cancelled. When it throws, nothing is held.
  virtual void acquire(bool wait, const utils::Task& task = {}) = 0;

  // Releases the lock. Throws utils::Error when that fails; the lock is free even then.
  virtual void release() = 0;
};

}  // namespace ossilar::store
