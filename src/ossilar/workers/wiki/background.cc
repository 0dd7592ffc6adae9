#include "ossilar/workers/wiki/background.h"

namespace ossilar::workers::wiki {
namespace {

constexpr int kRest = 9;           // times the work
constexpr int kMostLastTries = 3;  // at the end

}  // namespace

Background::~Background() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Background::ask() {
  {
    const std::lock_guard lock(mutex_);
    asked_ = true;
  }
  changed_.notify_all();
}

void Background::run() {
  std::unique_lock lock(mutex_);
  for (int last_tries = 0; last_tries < kMostLastTries;) {
    changed_.wait(lock, [this] { return asked_ || stopping_; });
    if (!asked_) return;
    if (stopping_) ++last_tries;
    asked_ = false;
    lock.unlock();
    const Clock::time_point begun = Clock::now();
    const bool again = work_();
    const Clock::time_point done = Clock::now();
    lock.lock();
    asked_ = asked_ || again;
    changed_.wait_until(lock, done + kRest * (done - begun), [this] { return stopping_; });
  }
}

}  // namespace ossilar::workers::wiki
