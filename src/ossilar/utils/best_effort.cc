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
