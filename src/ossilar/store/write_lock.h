// The wiki write lock: one holder at a time among all threads and processes that write one wiki. Wiki
// (host/wiki.h) has one for `.ossilar/write.lock`, taken for each commit; check/wiki_check.cc takes it to set
// a damaged database aside.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>

#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/task.h"

namespace ossilar::store {

// The lock was not free in time. The message says who holds it, as far as that is known, and how long was
// waited.
class LockBusy : public utils::Error {
 public:
  explicit LockBusy(const std::string& message, utils::Place place = utils::Place::current())
      : Error(message, place) {}
};

// A lock on the file `path` by flock(2). The kernel releases it when its holder ends, however it ends, so
// there is no stale lock to clean up. The file is created where it is missing and never removed; while the
// lock is held it names the holder, for the messages of others. What it says has no effect on the lock.
//
// Several objects on one path exclude each other too. A network file system may grant the lock to two
// machines at once, so a wiki on one must be written from a single machine.
//
// Thread-safety: acquire() and release() may be called from any thread, release() only while the lock is
// held: otherwise it would let another thread in. Not recursive: a thread that acquires again waits for
// itself until the timeout.
class WriteLock {
 public:
  struct Options {
    std::filesystem::path path;  // absolute
    // Commits take milliseconds; a holder that keeps the lock for longer is stuck, or many are waiting.
    std::chrono::milliseconds timeout{std::chrono::seconds(30)};
    std::string holder;  // who we are, for others' messages: "ossilar save"
    // Also locks the folder of the file, where the file system can. When somebody removes or moves the locked
    // file, the next process creates and locks a new one; the lock on the folder keeps it out all the same.
    bool guards_folder = false;
  };
  explicit WriteLock(Options options);

  // Takes the lock; with `wait` it waits up to the timeout, else it gives up at once. Throws LockBusy when
  // another holds it, IoError when the file cannot be opened or locked, also for a symbolic link at the path
  // or on the way, and utils::Cancelled within some 50 ms after `task` is cancelled. When it throws, nothing
  // is held.
  void acquire(bool wait, const utils::Task& task = {});

  // Releases the lock. Throws IoError when the system refuses; the lock is free even then, as the file is
  // closed.
  void release();

 private:
  struct Attempt;  // when a call of acquire() began and when it gives up
  struct Files {
    utils::UniqueFd folder;
    utils::UniqueFd file;
  };

  void enter(const Attempt& attempt, const utils::Task& task);
  void leave();
  static Files open_files(const std::filesystem::path& path);
  bool try_lock(const Files& files) const;
  Files lock_files(const Attempt& attempt, const utils::Task& task) const;

  const Options options_;
  std::mutex mutex_;
  std::condition_variable left_;
  // A thread holds the lock through this object, or waits for the file. Guarded by mutex_.
  bool entered_ = false;
  // Open and locked while the lock is held. Only the thread that has entered uses them.
  Files files_;
};

}  // namespace ossilar::store
