// The titles and ids under which a page was linked before, and the build cache of a row, which keeps them.
// When a page gets another title or id, links by the former ones still lead to it.
//
// A save records former titles (agent_save.cc, host/orchestrator.cc), the title index looks pages up by them
// (host/title_index.cc), and a page's record takes them to clones (pages/page_record.cc). Former ids come by
// check/renaming.cc, and asking/wiki_reader.cc looks pages up by them. The build cache is read here for
// page_title.cc, citing/page_state.cc and check/adoption.cc as well.
//
// Threads: functions without state, to be called from any thread. Failures: none; a damaged cache is empty.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ossilar/utils/json.h"

namespace ossilar::workers::wiki {

// The build cache's key of a page's former titles.
inline constexpr const char* FORMER_TITLES_KEY = "former_titles";

// And of its former ids.
inline constexpr const char* FORMER_IDS_KEY = "former_ids";

// The former titles that the row records, oldest first; none for an absent row.
std::vector<std::string> former_titles(const Map* row);

// The same of its former ids.
std::vector<std::string> former_ids(const Map* row);

// The former titles after a save: `former`, then the titles of `shown`, under which the page was known until
// now; each once. Empty titles are left out, and so is `title`, the page's now. Former ids follow the same
// rule.
std::vector<std::string> renamed(const std::vector<std::string>& former,
                                 const std::vector<std::optional<std::string>>& shown,
                                 const std::string& title);

// The build cache of a stored row as an object; empty when `row` is null or its cache is damaged.
Map build_cache_of(const Map* row);

// The same for the cache's JSON text.
Map parsed_build_cache(const std::string& text);

// What that object has under `key`, or null. Much cheaper than build_cache_of() where the key is missing, as
// it is for most pages: the cache is parsed only if its text may have the key.
Map build_cache_member(const Map* row, const char* key);

}  // namespace ossilar::workers::wiki
