// Which of a page's citations stand in a part of its text, and the figures per section that a row's build
// cache keeps.
//
// passages/page_chunks.cc asks for each passage; host/orchestrator.cc and check/adoption.cc fill build
// caches.
//
// Thread-safety: an object does not change once it is made, and section_cache() has no state; any thread may
// call.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/citations.h"

namespace ossilar::workers::wiki {

// Finds a page's citations in parts of its text.
class CitationsInText {
 public:
  // `citations` are the valid ones of the whole page, as a row holds them.
  explicit CitationsInText(const std::vector<Map>& citations);
  // Those that stand in `text`, each once, in order: a list of {"path", "first", "last"}.
  Map in(const std::string& text) const;

 private:
  std::set<Citation> known_;
};

// The build cache's entries about the sections of `body`, the authored text from its first `##` on:
// `sections`, a list of {"heading", "words", "citations", "hash"} with the SHA-256 of the section's text, its
// heading included, and `words`, the words of prose in all of `body`.
Map section_cache(const std::string& body, const std::vector<Map>& citations);

}  // namespace ossilar::workers::wiki
