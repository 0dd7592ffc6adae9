// Work that a thread of its own does soon after it was asked for, and not all the time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace ossilar::workers::wiki {

// Does `work` after each ask(), once for all that came before it began. What was asked for is done before the
// end.
//
// Thread-safety: every member may be called from any thread.
class Background {
 public:
  enum class Outcome {
    done,
    again,  // not done; it is to be tried again at once
    rest,   // done, at a price: nine times as long as it took nothing is done unless somebody waits, so that
            // it takes a tenth of a core
  };

  // `afterwards` is done after `work`, when nobody waits any more. Both handle their own failures.
  explicit Background(
      std::function<Outcome()> work, std::function<void()> afterwards = [] {})
      : work_(std::move(work)), afterwards_(std::move(afterwards)), thread_([this] { run(); }) {}
  ~Background();
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  void ask();
  // Waits until everything asked for so far is done, but not for longer than `patience`.
  void wait(std::chrono::milliseconds patience);

 private:
  using Clock = std::chrono::steady_clock;
  void run();

  const std::function<Outcome()> work_;
  const std::function<void()> afterwards_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t asked_ = 0;  // how often; guarded by mutex_, as are the next three
  std::uint64_t done_ = 0;   // how much of it
  int waiting_ = 0;
  bool stopping_ = false;
  std::thread thread_;  // the last member: it uses the others
};

}  // namespace ossilar::workers::wiki
