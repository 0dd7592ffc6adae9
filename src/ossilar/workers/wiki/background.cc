#include "ossilar/workers/wiki/background.h"

#include "ossilar/utils/files.h"

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
    ++asked_;
  }
  changed_.notify_all();
}

void Background::wait(std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  ++waiting_;
  changed_.notify_all();
  changed_.wait_for(lock, patience, [this, asked = asked_] { return done_ >= asked; });
  --waiting_;
}

void Background::run() {
  std::unique_lock lock(mutex_);
  for (int last_tries = 0; last_tries < kMostLastTries;) {
    changed_.wait(lock, [this] { return asked_ > done_ || stopping_; });
    if (asked_ == done_) return;
    if (stopping_) ++last_tries;
    const std::uint64_t asked = asked_;
    const Clock::time_point begun = Clock::now();
    auto outcome = Outcome::done;
    lock.unlock();
    {
      const utils::ReplacedFilesKept replaced;  // freed when nobody waits any more
      outcome = work_();
      lock.lock();
      if (outcome != Outcome::again) done_ = asked;
      changed_.notify_all();
      lock.unlock();
    }
    if (outcome != Outcome::again) afterwards_();
    const Clock::time_point ended = Clock::now();
    lock.lock();
    if (outcome == Outcome::rest) {
      changed_.wait_until(lock, ended + kRest * (ended - begun),
                          [this] { return stopping_ || waiting_ > 0; });
    }
  }
}

}  // namespace ossilar::workers::wiki
