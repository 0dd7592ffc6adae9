// Changing the embedding model. Vectors of different models cannot be compared, so every passage of every
// branch gets a new one.
//
// `ossilar init` and `ossilar search`, and the tool search_wiki of a session, look for a change and embed
// again. A save does not: it must not take as long as embedding the whole wiki.
//
// Thread-safety: any thread and several processes may call at once; with the same model they only do some
// work twice.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "ossilar/search/embedder.h"
#include "ossilar/store/repository.h"
#include "ossilar/utils/task.h"

namespace ossilar::workers::wiki {

struct EmbeddingChange {
  std::string from;          // a model that chunks still have; there may be several
  std::string to;            // the embedder's
  std::size_t passages = 0;  // still without a vector of `to`
};

// The change that is due; none if all chunks of all branches have the model of `embedder`. Throws
// store::StorageError.
std::optional<EmbeddingChange> embedding_change(store::WikiStore& store, const search::Embedder& embedder);

// Embeds every passage that has no vector of the embedder's model, batch by batch, and then drops the vectors
// of other models. When it fails or is cancelled, finished batches stay and the next call goes on from there;
// until then a search finds by words and by the new vectors that there are. Takes no write lock, so saves and
// other callers may run beside it. Throws what the embedder throws, and store::StorageError; utils::Cancelled
// passes.
void reembed(store::WikiStore& store, search::Embedder& embedder, const utils::Progress& progress,
             utils::Task& task);

}  // namespace ossilar::workers::wiki
