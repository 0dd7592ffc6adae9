// One queue under one mutex, and threads that each take the first job whose key is not busy. A queue for each
// key would be the usual way, but its queues have to be made, scheduled and removed; here a key exists only
// while a job with it runs.
//
// Invariants under the mutex: busy_keys_ holds the keys, other than "", of the running jobs, and
// waiting_bytes_ is the sum over waiting_. A job runs, and is destroyed, without the mutex.
#include "ossilar/mcp/protocol/scheduler.h"

#include <algorithm>
#include <utility>

namespace ossilar::mcp {
namespace {

// Bounds what short requests cost beside their bytes, and how far next_runnable() has to look. Fewer would
// stop the reading earlier; more would only let a flood wait here instead of in the pipe.
constexpr std::size_t kMostWaiting = 1024;
// Room for two of the longest lines (12 MiB each) and more. With less, one large save that waits would stop
// the reading.
constexpr std::size_t kMostWaitingBytes = std::size_t{32} * 1024 * 1024;

}  // namespace

Scheduler::Scheduler(std::size_t threads) {
  for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
}

Scheduler::~Scheduler() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    waiting_.clear();
  }
  may_run_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void Scheduler::post(std::string key, std::size_t bytes, Job job) {
  std::unique_lock lock(mutex_);
  // Asked before the job is added, so that one which alone is over the limit gets in when there is room.
  changed_.wait(lock,
                [this] { return waiting_.size() < kMostWaiting && waiting_bytes_ < kMostWaitingBytes; });
  waiting_bytes_ += bytes;
  waiting_.push_back({std::move(key), bytes, std::move(job)});
  may_run_.notify_one();
}

bool Scheduler::drain(std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, patience, [this] { return waiting_.empty() && running_ == 0; });
}

// From the front, so that jobs of one key keep their order. Linear in the queue, which is short.
std::deque<Scheduler::Entry>::iterator Scheduler::next_runnable() {
  return std::find_if(waiting_.begin(), waiting_.end(),
                      [this](const Entry& entry) { return busy_keys_.count(entry.key) == 0; });
}

void Scheduler::work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    may_run_.wait(lock, [this] { return stopping_ || next_runnable() != waiting_.end(); });
    if (stopping_) return;
    const auto next = next_runnable();
    Entry entry = std::move(*next);
    waiting_.erase(next);
    waiting_bytes_ -= entry.bytes;
    if (!entry.key.empty()) busy_keys_.insert(entry.key);
    ++running_;
    changed_.notify_all();
    lock.unlock();
    entry.job();
    entry.job = nullptr;  // frees what it holds before drain() can see it as done
    lock.lock();
    // The key is free only now: the next job of the key sees all that this one did.
    --running_;
    busy_keys_.erase(entry.key);
    changed_.notify_all();
    may_run_.notify_one();  // for the job that the freed key lets run: this thread may take another one
  }
}

}  // namespace ossilar::mcp
