// Threads take the next part when they are done with one, so a long part keeps no other waiting. They are
// started for each call: what is done with this takes far longer than a thread takes to start.
#include "ossilar/utils/parallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace ossilar::utils {
namespace {

class Parts {
 public:
  Parts(std::size_t count, const std::function<void(std::size_t)>& work) : count_(count), work_(work) {}

  // Takes parts until there are none left.
  void take() {
    try {
      for (std::size_t at = next_++; at < count_ && !failed_; at = next_++) work_(at);
    } catch (...) {
      const std::lock_guard lock(mutex_);
      if (!failure_) failure_ = std::current_exception();
      failed_ = true;
    }
  }

  void rethrow() const {
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  const std::size_t count_;
  const std::function<void(std::size_t)>& work_;
  std::atomic<std::size_t> next_ = 0;
  std::atomic<bool> failed_ = false;
  std::mutex mutex_;
  std::exception_ptr failure_;  // guarded by mutex_ while threads run
};

}  // namespace

void in_parallel(std::size_t count, const std::function<void(std::size_t)>& work) {
  const std::size_t cores = std::max(1U, std::thread::hardware_concurrency());
  Parts parts(count, work);
  {
    std::vector<std::jthread> others;  // joined at the end of the scope, also where one cannot be started
    others.reserve(cores);
    for (std::size_t i = 1; i < std::min(count, cores); ++i) others.emplace_back([&parts] { parts.take(); });
    parts.take();
  }
  parts.rethrow();
}

}  // namespace ossilar::utils
