#include "ossilar/mcp/protocol/scheduler.h"

#include <algorithm>
#include <utility>

namespace ossilar::mcp {
namespace {

constexpr std::size_t kMostWaiting = 1024;
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
    entry.job = nullptr;  // what it holds goes before it counts as done
    lock.lock();
    --running_;
    busy_keys_.erase(entry.key);
    changed_.notify_all();
    may_run_.notify_one();
  }
}

}  // namespace ossilar::mcp
