#include "ossilar/workers/wiki/plan/draft_order.h"

#include <algorithm>
#include <utility>

#include "ossilar/workers/wiki/plan/file_roles.h"

namespace ossilar::workers::wiki {
namespace {

int place_of(const Draft& draft) {
  if (is_bundled(draft.role)) return 4;
  if (draft.role != FolderRole::ordinary) return 3;
  if (is_upkeep_folder(draft.path.substr(0, draft.path.find('/')))) return 2;
  const bool offers = file_name(draft.path) == "include" || file_name(folder_of(draft.path)) == "include";
  const bool begins =
      std::any_of(draft.files.begin(), draft.files.end(), [&](const source::SourceFile* file) {
        return folder_of(file->path) == draft.path && entry_rank(*file) < kNoEntryPoint;
      });
  return offers || begins ? 0 : 1;
}

}  // namespace

std::vector<Draft> in_order(std::vector<Draft> drafts) {
  std::vector<std::vector<std::size_t>> below(drafts.size() + 1);  // the last is for those at the top
  for (std::size_t i = 0; i < drafts.size(); ++i)
    below[drafts[i].parent == kTop ? drafts.size() : drafts[i].parent].push_back(i);
  std::vector<int> places;
  places.reserve(drafts.size());
  for (const Draft& draft : drafts) places.push_back(place_of(draft));
  std::vector<Draft> out;
  out.reserve(drafts.size());
  std::vector<std::pair<std::size_t, std::size_t>> open{{drafts.size(), kTop}};  // with the new place above
  while (!open.empty()) {
    const auto [draft, parent] = open.back();
    open.pop_back();
    std::size_t above = kTop;
    if (draft < drafts.size()) {
      above = out.size();
      out.push_back(std::move(drafts[draft]));
      out.back().parent = parent;
    }
    auto& next = below[draft];
    std::stable_sort(next.begin(), next.end(), [&](auto a, auto b) { return places[a] < places[b]; });
    for (auto child = next.rbegin(); child != next.rend(); ++child) open.emplace_back(*child, above);
  }
  return out;
}

}  // namespace ossilar::workers::wiki
