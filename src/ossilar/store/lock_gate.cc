// Waits in slices, as a Task can be asked but not waited for.
#include "ossilar/store/lock_gate.h"

#include <unistd.h>

#include <algorithm>
#include <array>

namespace ossilar::store {
namespace {

using std::chrono::milliseconds;

// A year. Longer timeouts are cut to it, as the sum of the time now and the longest duration would overflow.
constexpr milliseconds kLongestTimeout = std::chrono::hours(24 * 365);
// Between checks for cancellation while another thread holds the lock: short for a person, long beside the
// cost of a check.
constexpr milliseconds kCancelLook(50);

// Stands in the queue for as long as it lives. Lifetime: the caller holds the queue's mutex at both ends.
class Ticket {
 public:
  explicit Ticket(std::deque<const void*>& queue) : queue_(queue) { queue_.push_back(this); }
  ~Ticket() { std::erase(queue_, this); }
  Ticket(const Ticket&) = delete;
  Ticket& operator=(const Ticket&) = delete;

  bool is_first() const { return queue_.front() == this; }

 private:
  std::deque<const void*>& queue_;
};

}  // namespace

LockAttempt::LockAttempt(milliseconds patience) : deadline(began + std::min(patience, kLongestTimeout)) {}

// Suggests to end a process only where one is named: no lock names one that has ended.
LockBusy lock_busy(const std::string& holder, LockAttempt::Clock::duration waited) {
  const auto tenths = std::chrono::duration_cast<milliseconds>(waited).count() / 100;
  return LockBusy("the wiki is being written by " + holder + "; waited " + std::to_string(tenths / 10) + "." +
                  std::to_string(tenths % 10) + " s; try again" +
                  (holder.starts_with("process ") ? ", or end that process" : ""));
}

// `now` is from before the wait, so that even an attempt that does not wait looks once. The lock is declared
// before the ticket: it is held when the ticket leaves the queue.
void LockGate::enter(const LockAttempt& attempt, const utils::Task& task) {
  std::unique_lock lock(mutex_);
  {
    const Ticket ticket(queue_);
    using Time = LockAttempt::Clock::time_point;
    for (Time now = LockAttempt::Clock::now();; now = LockAttempt::Clock::now()) {
      const Time until = std::min(attempt.deadline, now + kCancelLook);
      if (left_.wait_until(lock, until, [&] { return !entered_ && ticket.is_first(); })) break;
      if (now >= attempt.deadline) throw lock_busy("another save of this process", now - attempt.began);
      task.check();
    }
    entered_ = true;
  }
}

// All are woken, as only the first in the queue may enter.
void LockGate::leave() {
  {
    const std::lock_guard lock(mutex_);
    entered_ = false;
  }
  left_.notify_all();
}

std::string host_name() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "unknown host";
}

}  // namespace ossilar::store
