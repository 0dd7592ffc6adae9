// Long work that its caller may cancel and may watch, without an argument through every call on the way:
// whoever runs the work opens a TaskScope on the thread, and whoever does the work asks the functions here.
#pragma once

#include <atomic>
#include <functional>
#include <string_view>
#include <utility>

namespace ossilar::utils {

// What leaves work whose caller cancelled it. Not a std::exception: nothing on the way takes it for a
// failure.
struct Cancelled {};

// The caller's side of one piece of work.
//
// Thread-safety: every member may be called from any thread.
class TaskControl {
 public:
  // Is told each step as it begins, on the thread that does the work.
  using Watcher = std::function<void(std::string_view step)>;

  // Is told what begins, every step and every stage, behind a shield too: it must not wait for anything.
  using Probe = std::function<void(std::string_view stage)>;

  TaskControl() = default;
  explicit TaskControl(Watcher watcher, Probe probe = {})
      : watcher_(std::move(watcher)), probe_(std::move(probe)) {}

  void cancel() { cancelled_ = true; }
  bool cancelled() const { return cancelled_; }
  // Whether the work has been where it cannot be cancelled: what it did there stands.
  bool has_been_shielded() const { return shielded_; }

 private:
  friend class TaskShield;
  friend void begin_step(std::string_view step);
  friend void begin_stage(std::string_view stage);
  const Watcher watcher_;
  const Probe probe_;
  std::atomic<bool> cancelled_ = false;
  std::atomic<bool> shielded_ = false;
};

// Makes `control` that of the work on this thread until the scope's end. Scopes nest. `control` must outlive
// the scope.
class TaskScope {
 public:
  explicit TaskScope(TaskControl& control);
  ~TaskScope();
  TaskScope(const TaskScope&) = delete;
  TaskScope& operator=(const TaskScope&) = delete;

 private:
  TaskControl* outer_;
};

// While a shield lives on the thread that made it, nothing on that thread is cancelled, and no watcher is
// told anything: one who watches may keep the work waiting.
class TaskShield {
 public:
  TaskShield();
  ~TaskShield();
  TaskShield(const TaskShield&) = delete;
  TaskShield& operator=(const TaskShield&) = delete;
};

// Whether the work on this thread is to end. False without a scope and behind a shield.
bool cancel_requested();

// Throws Cancelled when it is.
void check_cancelled();

// Tells the watcher that `step` begins, a few words such as "embedding 12 passages"; throws Cancelled when
// the work is to end.
void begin_step(std::string_view step);

// Tells the probe alone that `stage` begins, a part of a step that only who measures asks about.
void begin_stage(std::string_view stage);

}  // namespace ossilar::utils
