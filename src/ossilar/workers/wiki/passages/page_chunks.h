// A page's chunks: its text in passages, each with its embedding and the citations that stand in it.
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

// What chunks are made with. All of it outlives the call.
struct ChunkServices {
  store::WikiStore& store;
  search::Embedder& embedder;
  VectorCache& vectors;
  utils::Task& task;
};

// The chunk records of a page (see store::chunk_key). A passage in `elsewhere` has its vector in the store
// and gets none; of the others only those that neither store nor cache knows are embedded. Throws what the
// embedder throws.
std::vector<Map> page_chunks(const ChunkServices& services, const std::string& searchable,
                             const std::vector<Map>& citations, const StringSet& elsewhere);

// Makes the chunks of the page whose row has the key `page_key` those of this text.
void replace_chunks(const ChunkServices& services, const std::string& branch, const std::string& page_id,
                    std::int64_t page_key, const std::string& searchable, const std::vector<Map>& citations);

}  // namespace ossilar::workers::wiki
