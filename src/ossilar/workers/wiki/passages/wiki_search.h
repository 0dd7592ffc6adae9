// Searching the passages of a wiki: by words and by vectors, with both rankings joined.
//
// `ossilar search` and the tool search_wiki of a session get here through asking/wiki_reader.cc. Nothing is
// written but words that wait to be indexed (store::WikiStore::match_words()).
//
// Thread-safety: no state; any thread may call, with a task of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "ossilar/search/embedder.h"
#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// An excerpt has some 300 bytes, so these are 2.4 and 15 KB of an agent's context.
inline constexpr std::int64_t kDefaultHits = 8;
inline constexpr std::int64_t kMostHits = 50;

struct SearchRequest {
  std::string query = {};             // a question, words or identifiers; at most 2,000 bytes
  std::int64_t limit = kDefaultHits;  // 1 to kMostHits
  std::string page_type = {};         // "" for any
  std::string path = {};              // only passages about this source file or folder; "" for any
};

struct SearchHit {
  std::string page_id;
  std::string title;
  std::string page_type;
  std::string rel_path;
  std::string section;  // heading that the passage stands under; "" above the first
  std::string excerpt;  // of the passage, around what was asked for; on one line
  double score = 0;     // 0 to 1; how sure it is where cosines have a known scale, else by its ranks
  Map citations;        // those that stand in the passage: a list of {"path", "first", "last"}
};

struct SearchResult {
  std::vector<SearchHit> hits;  // best first; a passage that several pages hold comes once
  std::string warning;          // what was left out of the search, or that no hit is a sure one; else ""
};

// The hits on `branch`, or an answer with `error` that refuses the request. Only vectors of `embedder`'s
// model are compared. If the embedder fails, words alone are searched and `warning` says so. Throws
// store::StorageError; utils::Cancelled passes.
std::variant<SearchResult, Answer> search_wiki(const SearchRequest& request, const std::string& branch,
                                               store::WikiStore& store, search::Embedder& embedder,
                                               const utils::Task& task);

// A hit as programs get it: its fields by their names, `page_type` as `type`, the score with three decimals.
Map hit_document(const SearchHit& hit);

}  // namespace ossilar::workers::wiki
