// The write lock of a machine that shares its wiki with others: that of the machine, then that of the store.
#pragma once

#include <memory>
#include <utility>

#include "ossilar/store/write_lock.h"

namespace ossilar::store {

// Processes of one machine queue for the machine's lock, so that one of them at a time waits for the other,
// and so that nobody changes the machine's page files beside the holder.
//
// Thread-safety: as WriteLock. Lifetime: the machine's lock outlives it.
class JointLock final : public WriteLock {
 public:
  JointLock(WriteLock& machines, std::unique_ptr<WriteLock> shared)
      : machines_(machines), shared_(std::move(shared)) {}

  // Waits for both one after the other, so twice the timeout at most. catch (...), as utils::Cancelled is no
  // std::exception.
  void acquire(bool wait, const utils::Task& task) override {
    machines_.acquire(wait, task);
    try {
      shared_->acquire(wait, task);
    } catch (...) {
      machines_.release();
      throw;
    }
  }

  void release() override {
    try {
      shared_->release();
    } catch (...) {
      machines_.release();
      throw;
    }
    machines_.release();
  }

 private:
  WriteLock& machines_;
  const std::unique_ptr<WriteLock> shared_;
};

}  // namespace ossilar::store
