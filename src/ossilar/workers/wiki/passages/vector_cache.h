// Vectors of passages that are drafted but not stored yet. page_chunks.cc fills and asks it; each Wiki has
// one, in memory alone, and its embedder's model is the only one in it.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "ossilar/store/repository.h"

namespace ossilar::workers::wiki {

// Keeps the vectors made last, by passage hash, so that chunking the same text again calls no embedder. A
// vector that was dropped is only made again.
//
// Thread-safety: every member may be called from any thread.
class VectorCache {
 public:
  std::optional<store::Vector> find(const std::string& hash) const;
  void put(const std::string& hash, store::Vector vector);

 private:
  // Two generations of at most kGeneration vectors: when the newer one is full, it becomes the older one,
  // whose vectors are dropped. That bounds memory without keeping an order of use. Both together hold 1,024
  // vectors, which is 0.8 MiB with the local embedder's 192 numbers each, and more passages than the drafts
  // of one moment usually have.
  static constexpr std::size_t kGeneration = 512;
  mutable std::mutex mutex_;
  std::map<std::string, store::Vector> newer_;
  std::map<std::string, store::Vector> older_;
};

}  // namespace ossilar::workers::wiki
