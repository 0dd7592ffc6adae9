// The plain way, one transaction that replaces all vectors, would keep every save waiting for as long as the
// embedding service takes, and lose all of it on a failure. Here each batch is a transaction of its own, and
// the embedder is called between them. Old vectors are dropped last, in one step that the store refuses as
// long as any passage has no new one.
#include "ossilar/workers/wiki/passages/reembedding.h"

#include <algorithm>
#include <map>
#include <vector>

namespace ossilar::workers::wiki {
namespace {

using store::PassageText;

// Passages of one batch. The HTTP embedder sends as many texts in one request (its limit in bytes may divide
// them further), and an interruption loses the work of at most one batch.
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
  // Passages come in the order of their hashes. Going on after the last one makes the loop end even while
  // saves add passages: those that come in before it are left to the next round.
  std::string after;
  for (std::size_t done = 0;;) {
    const std::vector<PassageText> batch = store.passages_without_vector(model, after, kBatch);
    if (batch.empty()) return;
    task.begin_step("embedding again: " + std::to_string(done) + " of " + std::to_string(total) +
                    " passages");
    store.add_vectors(model, embedded(batch, embedder, task));
    after = batch.back().hash;
    done += batch.size();
    if (progress) progress(std::min(done, total), total);  // passages may have been added since `total`
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

// keep_model() says no if a process that still uses the former model has saved in between. Its passages are
// embedded in the next round.
void reembed(store::WikiStore& store, search::Embedder& embedder, const utils::Progress& progress,
             utils::Task& task) {
  do {
    embed_what_lacks(store, embedder, progress, task);
  } while (!store.keep_model(embedder.model()));
}

}  // namespace ossilar::workers::wiki
