// A page's chunks: its text in passages, each with its embedding and the citations that stand in it.
//
// Each draft makes chunks without the write lock (host/orchestrator.cc). Adoption and repair (check/) replace
// those of a page under it.
//
// Thread-safety: any thread may call, with a task of its own, and with a store that is no other thread's
// transaction.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ossilar/search/embedder.h"
#include "ossilar/store/repository.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/passages/vector_cache.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// What chunks are made with. All of it must outlive the call.
struct ChunkServices {
  store::WikiStore& store;
  search::Embedder& embedder;
  VectorCache& vectors;
  utils::Task& task;
};

// The chunk records of the text `searchable` (see store::chunk_key), in order. `citations` are the page's
// valid ones. `elsewhere` has the hashes of passages that other pages hold with a vector of the embedder's
// model; these get a null embedding. Only passages that neither store nor cache has are embedded. Writes
// nothing but the cache. Throws what the store and the embedder throw; utils::Cancelled passes.
std::vector<Map> page_chunks(const ChunkServices& services, const std::string& searchable,
                             const std::vector<Map>& citations, const StringSet& elsewhere);

// Replaces the chunks of the page whose row has the key `page_key` by those of `searchable`. The caller holds
// the write lock. Throws as page_chunks(), or store::StorageError; the page then has its former chunks.
void replace_chunks(const ChunkServices& services, const std::string& branch, const std::string& page_id,
                    std::int64_t page_key, const std::string& searchable, const std::vector<Map>& citations);

}  // namespace ossilar::workers::wiki
