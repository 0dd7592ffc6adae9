// Long work that somebody may cancel and may watch.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <string_view>
#include <utility>

namespace ossilar::utils {

// Is called now and then during long work: how many of how many things are done.
using Progress = std::function<void(std::size_t done, std::size_t total)>;

// What leaves work that was cancelled. Not a std::exception: nothing on the way takes it for a failure.
struct Cancelled {};

// One piece of work. Whoever runs it makes the task and hands it to what does the work, which asks it now and
// then whether to go on. A task that nobody cancels and nobody watches is made without arguments.
//
// Thread-safety: cancel() may be called from any thread; all else belongs to the thread that does the work.
class Task {
 public:
  // Is told each step as it begins, on the thread that does the work.
  using Watcher = std::function<void(std::string_view step)>;

  // Is told what begins, every step and every stage, behind a shield too: it must not wait for anything.
  using Probe = std::function<void(std::string_view stage)>;

  Task() = default;
  explicit Task(Watcher watcher, Probe probe = {}) : watcher_(std::move(watcher)), probe_(std::move(probe)) {}
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  void cancel() { cancelled_ = true; }
  bool was_cancelled() const { return cancelled_; }

  // Whether the work is to end; false behind a shield.
  bool is_cancelled() const { return cancelled_ && !shielded_; }

  // Throws Cancelled when it is.
  void check() const {
    if (is_cancelled()) throw Cancelled{};
  }

  // Tells the watcher that `step` begins, a few words such as "embedding 12 passages"; throws Cancelled when
  // the work is to end.
  void begin_step(std::string_view step) {
    check();
    begin_stage(step);
    if (watcher_ && !shielded_) watcher_(step);
  }

  // Tells the probe alone that `stage` begins, a part of a step that only who measures asks about.
  void begin_stage(std::string_view stage) {
    if (probe_) probe_(stage);
  }

  // From now on, until the shield goes, the work is not cancelled and no watcher is told anything: one who
  // watches may keep the work waiting.
  void raise_shield() { shielded_ = has_been_shielded_ = true; }
  void drop_shield() { shielded_ = false; }

  // Whether the work has been where it cannot be cancelled: what it did there stands.
  bool has_been_shielded() const { return has_been_shielded_; }

 private:
  const Watcher watcher_;
  const Probe probe_;
  std::atomic<bool> cancelled_ = false;
  bool shielded_ = false;
  std::atomic<bool> has_been_shielded_ = false;  // asked by who cancels, too
};

}  // namespace ossilar::utils
