// The open scope is found through a thread-local pointer. Between the step that fails, deep in the source
// index, and the draft that stores the note lie layers that know nothing of either; a parameter through all
// of them would tie the index to pages. The price: a step must be noted on the thread that opened the scope,
// so the index notes a failure of its worker threads after they have ended.

#include "ossilar/utils/best_effort.h"

namespace ossilar::utils {
namespace {

DegradedScope*& innermost() {
  thread_local DegradedScope* scope = nullptr;
  return scope;
}

}  // namespace

DegradedScope::DegradedScope() : steps_(std::make_shared<Map>(Map::array())), outer_(innermost()) {
  innermost() = this;
}

DegradedScope::~DegradedScope() { innermost() = outer_; }

// Made in place in the caller's variable: its constructor stores `this`, so a scope must never move.
DegradedScope degraded_steps() { return {}; }

void degraded(std::string_view step, std::string_view reason) {
  const DegradedScope* scope = innermost();
  if (scope == nullptr) return;
  for (const Map& noted : *scope->steps_) {
    if (string_member(noted, "step") == step) return;
  }
  scope->steps_->push_back(Map{{"step", step}, {"reason", reason}});
}

}  // namespace ossilar::utils
