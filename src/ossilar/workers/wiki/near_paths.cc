// Names are compared and not whole paths: a folder left out or mistaken is more than any typing mistake in a
// name.
#include "ossilar/workers/wiki/near_paths.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <tuple>

#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

std::string_view name_of(std::string_view path) { return path.substr(path.rfind('/') + 1); }
std::string_view folder_of(std::string_view path) {
  return path.substr(0, path.size() - name_of(path).size());
}
std::string_view stem_of(std::string_view name) { return name.substr(0, name.rfind('.')); }

bool has_lines(const source::SourceFile& file) {
  return file.kind == source::FileKind::text && file.lines > 0;
}

std::size_t common_end(std::string_view a, std::string_view b) {
  return static_cast<std::size_t>(std::mismatch(a.rbegin(), a.rend(), b.rbegin(), b.rend()).first -
                                  a.rbegin());
}

std::string same_name(const std::string& path, const source::SourceIndex& index) {
  std::string best;
  std::size_t best_common = 0;
  for (const std::string& candidate : index.named(std::string(name_of(path)))) {
    if (!has_lines(*index.find(candidate))) continue;
    const std::size_t common = common_end(path, candidate);
    if (best.empty() || common > best_common) {
      best = candidate;
      best_common = common;
    }
  }
  return best;
}

// Case and the marks between words are no difference: HttpClient is http_client and http-client.
std::string letters_of(std::string_view name) {
  std::string out = utils::lower_case(name);
  std::erase_if(out, [](char c) { return c == '_' || c == '-'; });
  return out;
}

// How far the names are apart, if one may be meant by the other. In the same folder a short name may be wrong
// in as many letters as a long one.
std::optional<std::size_t> apart(const std::string& name, const std::string& other, bool is_neighbour) {
  const bool is_same_stem = stem_of(name) == stem_of(other) && !stem_of(name).empty();
  const std::size_t letters = stem_of(name).size();
  const std::size_t most =
      is_neighbour && letters > kMostWrong ? kMostWrong : std::min(kMostWrong, letters / 3);
  const std::size_t longer = std::max(name.size(), other.size());
  if (longer > kLongestName || (!is_same_stem && longer - std::min(name.size(), other.size()) > most))
    return std::nullopt;
  const std::size_t distance = utils::edit_distance(name, other);
  return is_same_stem || distance <= most ? std::optional(distance) : std::nullopt;
}

}  // namespace

std::string nearest_path(const std::string& path, const source::SourceIndex& index) {
  if (std::string same = same_name(path, index); !same.empty()) return same;
  const std::string name = letters_of(name_of(path));
  std::optional<std::tuple<bool, std::size_t, std::string_view>> best;
  for (const auto& file : index.files()) {
    const bool is_neighbour = folder_of(file->path) == folder_of(path);
    const auto distance = apart(name, letters_of(name_of(file->path)), is_neighbour);
    if (!distance || !has_lines(*file)) continue;
    const std::tuple<bool, std::size_t, std::string_view> rank{!is_neighbour, *distance, file->path};
    if (!best || rank < *best) best = rank;
  }
  return best ? std::string(std::get<2>(*best)) : "";
}

}  // namespace ossilar::workers::wiki
