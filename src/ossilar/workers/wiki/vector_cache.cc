#include "ossilar/workers/wiki/vector_cache.h"

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

std::map<std::string, store::Vector> passage_vectors(const std::vector<search::Passage>& passages,
                                                     const std::vector<std::string>& hashes,
                                                     const store::PassageHashes& elsewhere,
                                                     store::WikiStore& store, search::Embedder& embedder,
                                                     VectorCache& cache) {
  std::map<std::string, std::size_t> wanted;  // hash to a passage with that text
  for (std::size_t i = 0; i < hashes.size(); ++i) {
    if (elsewhere.count(hashes[i]) == 0) wanted.emplace(hashes[i], i);
  }
  std::vector<std::string> asked;
  asked.reserve(wanted.size());
  for (const auto& [hash, at] : wanted) asked.push_back(hash);
  std::map<std::string, store::Vector> vectors = store.vectors(embedder.model(), asked);

  std::vector<std::string> fresh;
  std::vector<std::string> texts;
  for (const auto& [hash, at] : wanted) {
    if (vectors.count(hash) > 0) continue;
    if (auto cached = cache.find(hash)) {
      vectors[hash] = *std::move(cached);
    } else {
      fresh.push_back(hash);
      texts.push_back(passages[at].text);
    }
  }
  if (texts.empty()) return vectors;
  std::vector<std::vector<float>> made = embedder.embed(texts);
  for (std::size_t i = 0; i < fresh.size(); ++i) {
    cache.put(fresh[i], made.at(i));
    vectors[fresh[i]] = std::move(made[i]);
  }
  return vectors;
}

}  // namespace ossilar::workers::wiki
