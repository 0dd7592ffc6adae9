// Vectors of passages that are drafted but not stored yet.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "ossilar/store/repository.h"

namespace ossilar::workers::wiki {

// Keeps the vectors made last by passage hash, so that chunking the same text again calls no embedder.
//
// Thread-safety: every member may be called from any thread.
class VectorCache {
 public:
  std::optional<store::Vector> find(const std::string& hash) const;
  void put(const std::string& hash, store::Vector vector);

 private:
  // Two generations of at most kGeneration each: when the newer is full the older is dropped. Some 1,000
  // vectors of 384 numbers are 1.5 MiB, more passages than the drafts of a moment have.
  static constexpr std::size_t kGeneration = 512;
  mutable std::mutex mutex_;
  std::map<std::string, store::Vector> newer_;
  std::map<std::string, store::Vector> older_;
};

}  // namespace ossilar::workers::wiki
