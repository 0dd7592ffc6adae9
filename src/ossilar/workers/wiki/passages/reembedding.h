// Changing the embedding model: vectors of different models are never compared, so passages get new ones.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "ossilar/search/embedder.h"
#include "ossilar/store/repository.h"
#include "ossilar/utils/task.h"

namespace ossilar::workers::wiki {

struct EmbeddingChange {
  std::string from;  // the model of what is embedded, or one of several
  std::string to;
  std::size_t passages = 0;  // without a vector of the new model
};

// None when all of the wiki, on every branch, is embedded with the model of `embedder`.
std::optional<EmbeddingChange> embedding_change(store::WikiStore& store, const search::Embedder& embedder);

// Embeds what lacks a vector of the embedder's model, batch by batch, and then drops the vectors of other
// models. What was embedded stays when it is ended half-way, and the next call goes on from there. Takes no
// write lock; saves and other callers may run beside it. Throws what the embedder throws; utils::Cancelled
// passes.
void reembed(store::WikiStore& store, search::Embedder& embedder, const utils::Progress& progress,
             utils::Task& task);

}  // namespace ossilar::workers::wiki
