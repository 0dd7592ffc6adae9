// Searching the passages of a wiki.
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

inline constexpr std::int64_t kDefaultHits = 8;
inline constexpr std::int64_t kMostHits = 50;

struct SearchRequest {
  std::string query = {};
  std::int64_t limit = kDefaultHits;  // 1 to kMostHits
  std::string page_type = {};         // "" for any
  std::string path = {};              // of a source file or folder that passages are about; "" for any
};

struct SearchHit {
  std::string page_id;
  std::string title;
  std::string page_type;
  std::string rel_path;
  std::string section;  // "" above the first
  std::string excerpt;  // of the passage, around what was asked for; on one line
  double score = 0;     // 1 for what every ranking puts first
  Map citations;        // {"path", "first", "last"} of those that stand in the passage
};

struct SearchResult {
  std::vector<SearchHit> hits;  // the best first; a passage that several pages hold once
  std::string warning;          // what was left out of the search, and why; "" when nothing was
};

// The result, or an answer with `error` that refuses the request. The vectors compared are those of
// `embedder`'s model; when it fails, the search goes by words alone and says so.
std::variant<SearchResult, Answer> search_wiki(const SearchRequest& request, const std::string& branch,
                                               store::WikiStore& store, search::Embedder& embedder,
                                               const utils::Task& task);

// A hit as programs get it: its fields by their names, the page's type as `type`.
Map hit_document(const SearchHit& hit);

}  // namespace ossilar::workers::wiki
