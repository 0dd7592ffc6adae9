// The lists of symbols are searched as texts first, and only those that hold the name are decoded: decoding
// all symbols of a large repository takes seconds.
#include "ossilar/workers/wiki/grounding/symbol_lookup.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>
#include <tuple>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/plan/file_roles.h"

namespace ossilar::workers::wiki {
namespace {

using source::Symbol;

constexpr std::size_t kLongestName = 60;  // for a comparison with every name: it costs the product
constexpr std::size_t kMostWrong = 2;

// "Wiki::open" is `open` in a scope that ends with `Wiki`.
struct Wanted {
  std::string scope, name, lower;
};

Wanted wanted_of(const SymbolQuery& query) {
  const std::size_t mark = query.name.find_last_of(".:");
  const bool is_scoped = mark != std::string::npos && mark > 0 && mark + 1 < query.name.size();
  std::string scope = is_scoped ? query.name.substr(0, mark) : "";
  scope.erase(scope.find_last_not_of(".:") + 1);
  std::string name = is_scoped ? query.name.substr(mark + 1) : query.name;
  return {std::move(scope), name, utils::lower_case(name)};
}

bool lies_in(std::string_view file, std::string_view path) {
  while (path.ends_with('/')) path.remove_suffix(1);
  return path.empty() || file == path || (file.starts_with(path) && file[path.size()] == '/');
}

bool scope_ends_with(std::string_view scope, std::string_view wanted) {
  if (!scope.ends_with(wanted)) return false;
  return scope.size() == wanted.size() ||
         std::string_view(":.").find(scope[scope.size() - wanted.size() - 1]) != std::string_view::npos;
}

// How well the name fits: 0 is best; none if it does not.
std::optional<int> fit(const std::string& name, const Wanted& wanted, bool is_whole) {
  if (name == wanted.name) return 0;
  if (is_whole) return std::nullopt;
  const std::string lower = utils::lower_case(name);
  const std::size_t at = lower.find(wanted.lower);
  if (at == std::string::npos) return std::nullopt;
  return lower.size() == wanted.lower.size() ? 1 : at == 0 ? 2 : 3;
}

}  // namespace

std::vector<FoundSymbol> find_symbols(const SymbolQuery& query, const source::SourceIndex& index) {
  const Wanted wanted = wanted_of(query);
  using Rank = std::tuple<int, bool, std::size_t, std::string_view, std::int64_t>;
  std::vector<std::pair<Rank, FoundSymbol>> ranked;
  for (const auto& file : index.files()) {
    if (!lies_in(file->path, query.path)) continue;
    const std::string& text = file->symbols.text();
    if (query.is_whole ? text.find(wanted.name) == std::string::npos
                       : utils::lower_case(text).find(wanted.lower) == std::string::npos)
      continue;
    const bool is_test = file_role(*file) != FileRole::code;
    for (Symbol& symbol : file->symbols.all()) {
      if (!query.kind.empty() && symbol.kind != query.kind) continue;
      if (!wanted.scope.empty() && !scope_ends_with(symbol.scope, wanted.scope)) continue;
      const auto fits = fit(symbol.name, wanted, query.is_whole);
      if (!fits) continue;
      const Rank rank{*fits, is_test, symbol.name.size(), file->path, symbol.line};
      ranked.push_back({rank, {file.get(), std::move(symbol)}});
    }
  }
  std::stable_sort(ranked.begin(), ranked.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<FoundSymbol> found;
  found.reserve(ranked.size());
  for (auto& [rank, symbol] : ranked) found.push_back(std::move(symbol));
  return found;
}

std::vector<std::string> near_symbols(const std::string& name, const source::SourceIndex& index,
                                      std::size_t most) {
  const Wanted wanted = wanted_of({.name = name});
  if (wanted.name.size() > kLongestName) return {};
  const std::size_t wrong = std::min(kMostWrong, wanted.name.size() / 3);
  std::map<std::string, std::size_t> near;
  for (const auto& file : index.files()) {
    for (const Symbol& symbol : file->symbols.all()) {
      const std::size_t longer = std::max(symbol.name.size(), wanted.name.size());
      if (longer - std::min(symbol.name.size(), wanted.name.size()) > wrong) continue;
      const std::size_t apart = utils::edit_distance(utils::lower_case(symbol.name), wanted.lower);
      if (apart <= wrong) near.emplace(symbol.name, apart);
    }
  }
  std::vector<std::pair<std::size_t, std::string>> ranked;
  ranked.reserve(near.size());
  for (const auto& [found, apart] : near) ranked.emplace_back(apart, found);
  std::sort(ranked.begin(), ranked.end());
  if (ranked.size() > most) ranked.resize(most);
  std::vector<std::string> names;
  names.reserve(ranked.size());
  for (auto& [apart, found] : ranked) names.push_back(std::move(found));
  return names;
}

}  // namespace ossilar::workers::wiki
