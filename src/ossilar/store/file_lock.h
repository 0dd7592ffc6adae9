// The wiki write lock of one machine. Wiki (host/wiki.h) has one for `.ossilar/write.lock`;
// check/wiki_check.cc takes it to set a damaged database aside.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include "ossilar/store/lock_gate.h"
#include "ossilar/store/write_lock.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/task.h"

namespace ossilar::store {

// A lock on the file `path` by flock(2). The kernel releases it when its holder ends, however it ends, so
// there is no stale lock to clean up. The file is created where it is missing and never removed; while the
// lock is held it names the holder, for the messages of others. What it says has no effect on the lock.
//
// Several objects on one path exclude each other too. A network file system may grant the lock to two
// machines at once, so a wiki on one must be written from a single machine.
class FileLock final : public WriteLock {
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
  explicit FileLock(Options options);

  // Throws IoError when the file cannot be opened or locked, also for a symbolic link at the path or on the
  // way.
  void acquire(bool wait, const utils::Task& task = {}) override;
  // Throws IoError when the system refuses; the lock is free even then, as the file is closed.
  void release() override;

 private:
  struct Files {
    utils::UniqueFd folder;
    utils::UniqueFd file;
  };

  static Files open_files(const std::filesystem::path& path);
  bool try_lock(const Files& files) const;
  Files lock_files(const LockAttempt& attempt, const utils::Task& task) const;

  const Options options_;
  LockGate gate_;
  // Open and locked while the lock is held. Only the thread that has entered uses them.
  Files files_;
};

}  // namespace ossilar::store
