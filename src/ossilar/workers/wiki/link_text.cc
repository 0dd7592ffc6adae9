#include "ossilar/workers/wiki/link_text.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "ossilar/utils/error.h"

namespace ossilar::workers::wiki {
namespace {

// The C library's search stops less often than the string's own, which looks at every first character.
bool holds(std::string_view text, std::string_view wanted) {
  return memmem(text.data(), text.size(), wanted.data(), wanted.size()) != nullptr;
}

}  // namespace

Map build_cache_of(const Map* row) {
  if (row == nullptr) return Map::object();
  const Map& text = utils::member(*row, "build_cache");
  return text.is_string() ? parsed_build_cache(text.get_ref<const std::string&>()) : Map::object();
}

Map parsed_build_cache(const std::string& text) {
  try {
    Map cache = utils::parse_json(text, "build cache");
    return cache.is_object() ? cache : Map::object();
  } catch (const utils::Error&) {
    return Map::object();  // a page whose cache is damaged has lost its titles' history, not its text
  }
}

// A key stands in the text as it is, unless someone else wrote it with an escape for one of its letters.
Map build_cache_member(const Map* row, const char* key) {
  if (row == nullptr) return {};
  const Map& text = utils::member(*row, "build_cache");
  if (!text.is_string()) return {};
  const auto& cache = text.get_ref<const std::string&>();
  const bool may_have = holds(cache, '"' + std::string(key) + '"') || holds(cache, "\\u00");
  return may_have ? utils::member(build_cache_of(row), key) : Map();
}

std::vector<std::string> former_titles(const Map* row) {
  std::vector<std::string> titles;
  for (const Map& title : build_cache_member(row, FORMER_TITLES_KEY)) {
    if (title.is_string()) titles.push_back(title.get<std::string>());
  }
  return titles;
}

std::vector<std::string> renamed(const std::vector<std::string>& former,
                                 const std::vector<std::optional<std::string>>& shown,
                                 const std::string& title) {
  std::vector<std::string> titles;
  const auto add = [&](const std::string& candidate) {
    const bool known = std::find(titles.begin(), titles.end(), candidate) != titles.end();
    if (!candidate.empty() && candidate != title && !known) titles.push_back(candidate);
  };
  for (const std::string& candidate : former) add(candidate);
  for (const auto& candidate : shown) {
    if (candidate) add(*candidate);
  }
  return titles;
}

}  // namespace ossilar::workers::wiki
