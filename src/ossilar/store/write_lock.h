// The wiki write lock: one holder at a time among all threads and processes that write one wiki.
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

// The lock could not be had in time. The message says who holds it and how long was waited.
class LockBusy : public utils::Error {
 public:
  explicit LockBusy(const std::string& message, utils::Place place = utils::Place::current())
      : Error(message, place) {}
};

// A lock on the file `path` by flock(2), which the kernel gives back when the holder is gone, however it
// went. The file is created where it is missing, never removed, and names its holder, while there is one, for
// the one who waits.
// Several objects on one path exclude each other too. A network file system may give the same lock to two
// machines at once; a wiki on one is to be written from one machine.
//
// Thread-safety: acquire() and release() may be called from any thread; release() only by the holder.
class WriteLock {
 public:
  struct Options {
    std::filesystem::path path;  // absolute
    std::chrono::milliseconds timeout{std::chrono::seconds(30)};
    std::string holder;  // who we are, for others' messages: "ossilar save"
    // Locks the folder of the file too, where the file system can: one who finds another file at the path,
    // since somebody removed or moved the one that is locked, is kept out all the same.
    bool guards_folder = false;
  };
  explicit WriteLock(Options options);

  // Takes the lock; with `wait` it waits up to the timeout, else it gives up at once. Throws LockBusy when
  // another holds it, IoError when the file cannot be opened or locked; no symbolic link is followed on the
  // way to it. Waiting ends with utils::Cancelled when `task` is cancelled.
  void acquire(bool wait, const utils::Task& task = {});

  // Gives the lock back. Throws IoError when the system refuses; the lock is free even then.
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
  bool entered_ = false;  // a thread holds the lock through this object, or waits for the file to be free
  Files files_;           // open and locked while the lock is held; belong to the thread that has entered
};

}  // namespace ossilar::store
