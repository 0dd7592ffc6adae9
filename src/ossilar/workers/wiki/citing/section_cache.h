// What is kept of a page by section, and which citations stand in a text.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/citations.h"

namespace ossilar::workers::wiki {

// The citations of a page, to be found in parts of its text.
class CitationsInText {
 public:
  explicit CitationsInText(const std::vector<Map>& citations);  // see citation_map()
  // Those that stand in `text`, each once: a list of {"path", "first", "last"}.
  Map in(const std::string& text) const;

 private:
  std::set<Citation> known_;
};

// The entries of a build cache that are about the sections of `body`: `sections`, a list of {"heading",
// "words", "citations", "hash"}, and `words`, the words of prose in all of it.
Map section_cache(const std::string& body, const std::vector<Map>& citations);

}  // namespace ossilar::workers::wiki
