// Notes the steps that failed without failing the work they belong to, such as finding symbols without ctags.
//
// The source index notes (source/indexer.cc, source/refresh.cc). A draft opens the scope that collects the
// notes (workers/wiki/agent_save.cc) and stores them in the page's row, as `degraded` in its `build_cache`.
//
// Thread-safety: scopes belong to the thread that opened them; a note made on another thread is not
// collected.
#pragma once

#include <memory>
#include <string_view>

#include "ossilar/utils/json.h"

namespace ossilar::utils {

// Collects the steps that are noted on its thread as long as it lives. Scopes nest; the innermost collects.
// It must be destroyed on the thread that made it. An exception passes through it.
class DegradedScope {
 public:
  DegradedScope();
  ~DegradedScope();
  DegradedScope(const DegradedScope&) = delete;
  DegradedScope& operator=(const DegradedScope&) = delete;

  // A list of objects {"step", "reason"} in the order in which they were noted. It grows while the scope is
  // open and may be read after its end.
  std::shared_ptr<const Map> entered() const { return steps_; }

 private:
  friend void degraded(std::string_view step, std::string_view reason);
  std::shared_ptr<Map> steps_;
  DegradedScope* outer_;
};

// Opens a scope.
DegradedScope degraded_steps();

// Notes in the innermost open scope of this thread that `step` ran degraded, and for which `reason`. A scope
// keeps the first note of a step. Without an open scope the note is dropped.
void degraded(std::string_view step, std::string_view reason);

}  // namespace ossilar::utils
