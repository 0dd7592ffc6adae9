// find() does not renew a vector's place, so a generation goes by age and not by use. That is enough: a
// vector is asked for again within the same save or its next attempt, and afterwards it is in the store.
#include "ossilar/workers/wiki/passages/vector_cache.h"

#include <utility>

namespace ossilar::workers::wiki {

std::optional<store::Vector> VectorCache::find(const std::string& hash) const {
  const std::lock_guard lock(mutex_);
  for (const auto* generation : {&newer_, &older_}) {
    if (const auto found = generation->find(hash); found != generation->end()) return found->second;
  }
  return std::nullopt;
}

void VectorCache::put(const std::string& hash, store::Vector vector) {
  const std::lock_guard lock(mutex_);
  if (newer_.size() >= kGeneration) older_ = std::exchange(newer_, {});
  newer_[hash] = std::move(vector);
}

}  // namespace ossilar::workers::wiki
