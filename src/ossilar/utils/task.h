// Long work that can be cancelled and watched from outside.
//
// A session makes a task for each request and cancels it when its client asks (mcp/session.cc). A save, the
// waits for locks and the calls of an embedding service ask it whether to go on.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <string_view>
#include <utility>

namespace ossilar::utils {

// Called now and then during long work, on the thread that does it: `done` of `total` things are done.
using Progress = std::function<void(std::size_t done, std::size_t total)>;

// Thrown out of work that was cancelled. It is no std::exception, so that no handler of failures on the way
// catches it, logs it or makes an answer of it.
struct Cancelled {};

// One piece of work. The caller makes the task and passes it to the functions that do the work, which ask it
// now and then whether to go on. Work that cannot be cancelled or watched gets a task without arguments.
//
// Thread-safety: cancel(), was_cancelled() and has_been_shielded() may be called from any thread, all else
// only from the thread that does the work. Lifetime: the task outlives the work.
class Task {
 public:
  // Told each step that begins, on the thread that does the work. It may block, such as on a client's pipe.
  using Watcher = std::function<void(std::string_view step)>;

  // Told every step and every stage that begins, also behind a shield, where the write lock is held: it must
  // not wait for anything. Set by benches and by a server's measurements
  // (mcp/http/metrics.cc).
  using Probe = std::function<void(std::string_view stage)>;

  Task() = default;
  explicit Task(Watcher watcher, Probe probe = {}) : watcher_(std::move(watcher)), probe_(std::move(probe)) {}
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  void cancel() { cancelled_ = true; }
  bool was_cancelled() const { return cancelled_; }

  // Whether the work is to end now. Always false behind a shield.
  bool is_cancelled() const { return cancelled_ && !shielded_; }

  // Throws Cancelled when it is to end.
  void check() const {
    if (is_cancelled()) throw Cancelled{};
  }

  // Tells probe and watcher that `step` begins, in a few words such as "embedding 12 passages". Throws
  // Cancelled, before it tells anybody, when the work is to end.
  void begin_step(std::string_view step) {
    check();
    begin_stage(step);
    if (watcher_ && !shielded_) watcher_(step);
  }

  // Tells the probe alone that `stage` begins: a part of a step that is of interest to measurements only.
  // Never throws Cancelled.
  void begin_stage(std::string_view stage) {
    if (probe_) probe_(stage);
  }

  // Until the shield is dropped, the work is not cancelled, and the watcher is told nothing, as it might
  // block. A save raises it as long as it holds the write lock: a commit is not given up half-way, and a slow
  // client must not keep other writers waiting.
  void raise_shield() { shielded_ = has_been_shielded_ = true; }
  void drop_shield() { shielded_ = false; }

  // Whether a shield was ever raised. What was done behind it stands, so its answer is given even if the work
  // was cancelled.
  bool has_been_shielded() const { return has_been_shielded_; }

 private:
  const Watcher watcher_;
  const Probe probe_;
  std::atomic<bool> cancelled_ = false;
  bool shielded_ = false;  // the working thread's alone
  std::atomic<bool> has_been_shielded_ = false;
};

}  // namespace ossilar::utils
