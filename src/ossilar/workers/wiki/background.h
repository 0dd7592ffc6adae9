// Work that a thread of its own does soon after it was asked for, and not all the time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace ossilar::workers::wiki {

// Does `work` after each ask(), once for all that came before it began. It rests for nine times as long as it
// worked, so that it never takes more than a tenth of a core. What was asked for is done before the end.
//
// Thread-safety: every member may be called from any thread.
class Background {
 public:
  // `work` handles its own failures; it gives whether it is to be done again.
  explicit Background(std::function<bool()> work) : work_(std::move(work)), thread_([this] { run(); }) {}
  ~Background();
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  void ask();

 private:
  using Clock = std::chrono::steady_clock;
  void run();

  const std::function<bool()> work_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool asked_ = false;  // guarded by mutex_, as is the next
  bool stopping_ = false;
  std::thread thread_;  // the last member: it uses the others
};

}  // namespace ossilar::workers::wiki
