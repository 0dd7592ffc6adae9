#include "ossilar/utils/task.h"

namespace ossilar::utils {
namespace {

// The work of the calling thread.
struct Current {
  TaskControl* control = nullptr;
  int shields = 0;
};

Current& current() {
  thread_local Current work;
  return work;
}

}  // namespace

TaskScope::TaskScope(TaskControl& control) : outer_(std::exchange(current().control, &control)) {}

TaskScope::~TaskScope() { current().control = outer_; }

TaskShield::TaskShield() {
  Current& work = current();
  ++work.shields;
  if (work.control != nullptr) work.control->shielded_ = true;
}

TaskShield::~TaskShield() { --current().shields; }

bool cancel_requested() {
  const Current& work = current();
  return work.control != nullptr && work.shields == 0 && work.control->cancelled();
}

void check_cancelled() {
  if (cancel_requested()) throw Cancelled{};
}

void begin_stage(std::string_view stage) {
  const Current& work = current();
  if (work.control != nullptr && work.control->probe_) work.control->probe_(stage);
}

void begin_step(std::string_view step) {
  check_cancelled();
  begin_stage(step);
  const Current& work = current();
  if (work.control != nullptr && work.shields == 0 && work.control->watcher_) work.control->watcher_(step);
}

}  // namespace ossilar::utils
