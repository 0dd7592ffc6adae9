// An embedding may be a request to a service, so each passage is looked for in three places before it is
// embedded: with other pages (`elsewhere`), in the store, in the cache of vectors that drafts have made and
// not stored. Without the cache, a draft that has to be made again would ask the service again, and so would
// a commit whose chunks have to be made anew, which holds the write lock meanwhile.
//
// Everything goes by the hash of the passage's text, so a passage that a page holds twice is embedded once.
#include "ossilar/workers/wiki/passages/page_chunks.h"

#include <map>
#include <utility>

#include "ossilar/search/chunking.h"
#include "ossilar/utils/hash.h"
#include "ossilar/workers/wiki/citing/section_cache.h"

namespace ossilar::workers::wiki {
namespace {

// The vectors by hash, for all `hashes` but those in `elsewhere`. `hashes[i]` is that of `passages[i]`. All
// texts for the embedder go in one call, so that a service gets few requests.
std::map<std::string, store::Vector> passage_vectors(const ChunkServices& services,
                                                     const std::vector<search::Passage>& passages,
                                                     const std::vector<std::string>& hashes,
                                                     const StringSet& elsewhere) {
  std::map<std::string, std::size_t> wanted;  // hash to a passage with that text
  for (std::size_t i = 0; i < hashes.size(); ++i) {
    if (elsewhere.count(hashes[i]) == 0) wanted.emplace(hashes[i], i);
  }
  std::vector<std::string> asked;
  asked.reserve(wanted.size());
  for (const auto& [hash, at] : wanted) asked.push_back(hash);
  std::map<std::string, store::Vector> vectors = services.store.vectors(services.embedder.model(), asked);

  std::vector<std::string> fresh;
  std::vector<std::string> texts;
  for (const auto& [hash, at] : wanted) {
    if (vectors.count(hash) > 0) continue;
    if (auto cached = services.vectors.find(hash)) {
      vectors[hash] = *std::move(cached);
    } else {
      fresh.push_back(hash);
      texts.push_back(passages[at].text);
    }
  }
  if (texts.empty()) return vectors;
  std::vector<std::vector<float>> made = services.embedder.embed(texts, services.task);
  for (std::size_t i = 0; i < fresh.size(); ++i) {
    services.vectors.put(fresh[i], made.at(i));  // at(): fewer vectors than texts must not pass
    vectors[fresh[i]] = std::move(made[i]);
  }
  return vectors;
}

}  // namespace

std::vector<Map> page_chunks(const ChunkServices& services, const std::string& searchable,
                             const std::vector<Map>& citations, const StringSet& elsewhere) {
  const std::vector<search::Passage> passages = search::passages(searchable);
  services.task.begin_step("embedding " + std::to_string(passages.size()) + " passage(s)");
  std::vector<std::string> hashes;
  hashes.reserve(passages.size());
  for (const search::Passage& passage : passages) hashes.push_back(utils::sha256_hex(passage.text));
  const auto vectors = passage_vectors(services, passages, hashes, elsewhere);
  const CitationsInText known(citations);
  std::vector<Map> chunks;
  for (std::size_t i = 0; i < passages.size(); ++i) {
    const auto vector = vectors.find(hashes[i]);
    chunks.push_back(Map{{store::chunk_key::kPosition, i},
                         {store::chunk_key::kSection, passages[i].section},
                         {store::chunk_key::kText, passages[i].text},
                         {store::chunk_key::kHash, hashes[i]},
                         {store::chunk_key::kModel, services.embedder.model()},
                         {store::chunk_key::kCitations, known.in(passages[i].text)},
                         {store::chunk_key::kEmbedding,
                          vector == vectors.end() ? Map() : store::embedding_form(vector->second)}});
  }
  return chunks;
}

// What other pages share is asked for right before it is used, and the write lock keeps it true meanwhile: if
// another page gave a passage up, the passage could be gone with its vector, and the store would refuse the
// chunk.
void replace_chunks(const ChunkServices& services, const std::string& branch, const std::string& page_id,
                    std::int64_t page_key, const std::string& searchable, const std::vector<Map>& citations) {
  const store::SharedPassages shared =
      services.store.shared_passages(branch, page_id, services.embedder.model());
  services.store.store_chunks(page_key, page_chunks(services, searchable, citations, shared.embedded),
                              shared.all);
}

}  // namespace ossilar::workers::wiki
