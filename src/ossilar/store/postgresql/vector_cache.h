// The vectors of passages that this process has read. Internal to this room; a store has one.
//
// A search compares its question with every vector of a branch, and the server has no function for that
// without an extension, which many a hosted one lacks. A passage never changes under its key, and so neither
// does its vector: a search asks the server where passages stand, and for those vectors alone that it has not
// had yet.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "ossilar/store/postgresql/session.h"
#include "ossilar/store/repository.h"

namespace ossilar::store::postgresql {

// Thread-safety: any thread. Searches fetch in turn and compare side by side.
class VectorCache {
 public:
  // The cosine of `query` with the vector of each of the passages, none where one has no vector of `model`.
  // Throws as Session::run().
  std::vector<std::optional<double>> cosines(Session& session, const std::string& model,
                                             const std::vector<std::int64_t>& passages, const Vector& query);
  // `passages` are all that a search may ask for from now on. Drops the others once they are the larger part.
  void settle(const std::vector<std::int64_t>& passages);
  // For a database that was restored from a copy, whose keys may name other passages.
  void drop();

 private:
  std::vector<std::int64_t> missing(const std::string& model, const std::vector<std::int64_t>& passages);
  void fetch(Session& session, const std::string& model, const std::vector<std::int64_t>& passages);

  std::mutex fetching_;              // held by who fetches; taken before mutex_
  mutable std::shared_mutex mutex_;  // guards what follows
  std::string model_;
  std::unordered_map<std::int64_t, Vector> vectors_;  // by the passage's key
};

}  // namespace ossilar::store::postgresql
