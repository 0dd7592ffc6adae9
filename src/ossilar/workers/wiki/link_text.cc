// Every process asks each row for its former titles when it builds the title index, and few rows have any.
// Parsing a cache costs far more than looking for the key in its text, so the text is searched first.
#include "ossilar/workers/wiki/link_text.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "ossilar/utils/error.h"

namespace ossilar::workers::wiki {
namespace {

// memmem(): std::string_view::find() stops at each occurrence of the first character, here a quotation mark,
// of which JSON is full.
bool holds(std::string_view text, std::string_view wanted) {
  return memmem(text.data(), text.size(), wanted.data(), wanted.size()) != nullptr;
}

// A name that is no string is passed over: what another program left in a row must not fail a save.
std::vector<std::string> names_under(const char* key, const Map* row) {
  std::vector<std::string> names;
  for (const Map& name : build_cache_member(row, key)) {
    if (name.is_string()) names.push_back(name.get<std::string>());
  }
  return names;
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
    return Map::object();  // what is lost is the history of titles; the page's text is in its file
  }
}

// In the text a key looks as it is, unless another program wrote it with an escape for one of its letters;
// such an escape begins with \u00. A key found in a string or deeper inside only costs a parse for nothing.
Map build_cache_member(const Map* row, const char* key) {
  if (row == nullptr) return {};
  const Map& text = utils::member(*row, "build_cache");
  if (!text.is_string()) return {};
  const auto& cache = text.get_ref<const std::string&>();
  const bool may_have = holds(cache, '"' + std::string(key) + '"') || holds(cache, "\\u00");
  return may_have ? utils::member(build_cache_of(row), key) : Map();
}

std::vector<std::string> former_titles(const Map* row) { return names_under(FORMER_TITLES_KEY, row); }

std::vector<std::string> former_ids(const Map* row) { return names_under(FORMER_IDS_KEY, row); }

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
