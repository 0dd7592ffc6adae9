// The texts under which a page can be linked: its title and the titles it had.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ossilar/utils/json.h"

namespace ossilar::workers::wiki {

// The build cache's key of a page's former titles.
inline constexpr const char* FORMER_TITLES_KEY = "former_titles";

// The former titles that the row records, oldest first; none for an absent row.
std::vector<std::string> former_titles(const Map* row);

// The former titles after a save: `former` and those of `shown` that are there, each once, without `title`
// itself, which is a former title no more.
std::vector<std::string> renamed(const std::vector<std::string>& former,
                                 const std::vector<std::optional<std::string>>& shown,
                                 const std::string& title);

// The build cache of a stored row as an object; empty when the row is absent or its cache is damaged.
Map build_cache_of(const Map* row);

// The same of its text.
Map parsed_build_cache(const std::string& text);

// What that object has under `key`, null when nothing. Looks for the key before it parses the cache; few
// pages have the keys of this room.
Map build_cache_member(const Map* row, const char* key);

}  // namespace ossilar::workers::wiki
