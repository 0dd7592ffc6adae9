#include "ossilar/workers/wiki/passages/reembedding.h"

#include <algorithm>
#include <map>
#include <vector>

namespace ossilar::workers::wiki {
namespace {

using store::PassageText;

// Passages of one batch: what a service takes in one or two requests, and what is lost when it is ended.
constexpr std::size_t kBatch = 64;

std::map<std::string, store::Vector> embedded(const std::vector<PassageText>& batch,
                                              search::Embedder& embedder, utils::Task& task) {
  std::vector<std::string> texts;
  texts.reserve(batch.size());
  for (const PassageText& passage : batch) texts.push_back(passage.text);
  std::vector<std::vector<float>> vectors = embedder.embed(texts, task);
  std::map<std::string, store::Vector> by_hash;
  for (std::size_t i = 0; i < batch.size(); ++i) by_hash.emplace(batch[i].hash, std::move(vectors.at(i)));
  return by_hash;
}

void embed_what_lacks(store::WikiStore& store, search::Embedder& embedder, const utils::Progress& progress,
                      utils::Task& task) {
  const std::string model = embedder.model();
  const std::size_t total = store.count_without_vector(model);
  std::string after;
  for (std::size_t done = 0;;) {
    const std::vector<PassageText> batch = store.passages_without_vector(model, after, kBatch);
    if (batch.empty()) return;
    task.begin_step("embedding again: " + std::to_string(done) + " of " + std::to_string(total) +
                    " passages");
    store.add_vectors(model, embedded(batch, embedder, task));
    after = batch.back().hash;
    done += batch.size();
    if (progress) progress(std::min(done, total), total);
  }
}

}  // namespace

std::optional<EmbeddingChange> embedding_change(store::WikiStore& store, const search::Embedder& embedder) {
  auto from = store.other_model(embedder.model());
  if (!from) return std::nullopt;
  return EmbeddingChange{.from = *std::move(from),
                         .to = embedder.model(),
                         .passages = store.count_without_vector(embedder.model())};
}

// A save of a process that still uses the former model may come in between; it is embedded in the next round.
void reembed(store::WikiStore& store, search::Embedder& embedder, const utils::Progress& progress,
             utils::Task& task) {
  do {
    embed_what_lacks(store, embedder, progress, task);
  } while (!store.keep_model(embedder.model()));
}

}  // namespace ossilar::workers::wiki
