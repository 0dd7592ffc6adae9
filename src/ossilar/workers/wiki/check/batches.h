// Writing many pages in few transactions.
#pragma once

#include <chrono>
#include <memory>

#include "ossilar/store/repository.h"

namespace ossilar::workers::wiki {

// Many pages in one transaction, which is not to keep other processes from writing for long.
class Batches {
 public:
  explicit Batches(store::WikiStore& store) : store_(store) {}

  template <class Work>
  void add(Work work) {
    if (!transaction_) {
      transaction_ = store_.begin("adopt pages");
      begun_ = std::chrono::steady_clock::now();
    }
    work(*transaction_);
    if (std::chrono::steady_clock::now() - begun_ > kLongest) end();
  }
  void end() {
    if (!transaction_) return;
    transaction_->index_waiting_words(0);
    transaction_->commit();
    transaction_.reset();
  }

 private:
  static constexpr std::chrono::milliseconds kLongest{100};
  store::WikiStore& store_;
  std::unique_ptr<store::StoreTransaction> transaction_;
  std::chrono::steady_clock::time_point begun_;
};

}  // namespace ossilar::workers::wiki
