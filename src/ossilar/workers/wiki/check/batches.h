// Writing many pages in few transactions: arrivals.cc and older_format.cc go through whole wikis. A
// transaction for each page would wait for a sync of the disk each time.
//
// Threads: one, which holds the write lock. A failure leaves the batches that were committed; the one at work
// is taken back when the object ends without end().
#pragma once

#include <chrono>
#include <memory>

#include "ossilar/store/repository.h"

namespace ossilar::workers::wiki {

// Commits by time and not by number of pages, as pages take different times to write and other writers of the
// database wait for the whole batch.
class Batches {
 public:
  explicit Batches(store::WikiStore& store) : store_(store) {}

  // Calls `work` with the transaction of the batch. What it throws passes; the batch goes on, without the
  // step that failed.
  template <class Work>
  void add(Work work) {
    if (!transaction_) {
      transaction_ = store_.begin("adopt pages");
      begun_ = std::chrono::steady_clock::now();
    }
    work(*transaction_);
    if (std::chrono::steady_clock::now() - begun_ > kLongest) end();
  }
  // Commits what is not committed yet. Throws store::StorageError.
  void end() {
    if (!transaction_) return;
    // Now, in the same transaction: many pages would make the next search wait.
    transaction_->index_waiting_words(0);
    transaction_->commit();
    transaction_.reset();
  }

 private:
  // After this long a batch is committed. Longer batches spare syncs, but other writers wait for them,
  // shorter ones the other way round. One page may take longer; a batch has at least one.
  static constexpr std::chrono::milliseconds kLongest{100};
  store::WikiStore& store_;
  std::unique_ptr<store::StoreTransaction> transaction_;
  std::chrono::steady_clock::time_point begun_;
};

}  // namespace ossilar::workers::wiki
