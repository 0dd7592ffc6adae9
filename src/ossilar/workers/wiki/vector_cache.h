// Vectors of passages that are drafted but not stored yet.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/search/chunking.h"
#include "ossilar/search/embedder.h"
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

// The vectors of the passages with these hashes, but for those in `elsewhere`, which are stored with another
// page and stay: from the store, from the cache, and only for the rest from the embedder.
std::map<std::string, store::Vector> passage_vectors(const std::vector<search::Passage>& passages,
                                                     const std::vector<std::string>& hashes,
                                                     const store::PassageHashes& elsewhere,
                                                     store::WikiStore& store, search::Embedder& embedder,
                                                     VectorCache& cache);

}  // namespace ossilar::workers::wiki
