// Steps that may fail without failing the work they are part of: symbols without the symbol tool, for one.
// What ran degraded is noted in the scope that is open on the calling thread, and stored with the page.
#pragma once

#include <memory>
#include <string_view>

#include "ossilar/utils/json.h"

namespace ossilar::utils {

// A scope that collects degraded steps from its making to its end, on the thread that made it. Scopes nest;
// the innermost collects. A failure that leaves the scope passes on.
class DegradedScope {
 public:
  DegradedScope();
  ~DegradedScope();
  DegradedScope(const DegradedScope&) = delete;
  DegradedScope& operator=(const DegradedScope&) = delete;

  // A list of objects {"step", "reason"}, in the order in which they were noted; readable after the scope's
  // end.
  std::shared_ptr<const Map> entered() const { return steps_; }

 private:
  friend void degraded(std::string_view step, std::string_view reason);
  std::shared_ptr<Map> steps_;
  DegradedScope* outer_;
};

DegradedScope degraded_steps();

// Notes in the innermost open scope of this thread that `step` ran degraded; without a scope it is not kept.
// The same step is noted once a scope.
void degraded(std::string_view step, std::string_view reason);

}  // namespace ossilar::utils
