// A page may link to itself by the title that its save is about to give it. No row has that title before the
// commit, so the title index cannot know it, and the link would stay plain text until the next save.
// Therefore the plan's own title is compared first, folded as CommonMark folds link labels.
#include "ossilar/workers/wiki/host/planned_wiki.h"

#include <optional>
#include <string_view>

#include "ossilar/utils/fold.h"

namespace ossilar::workers::wiki {

Brackets brackets_of(const std::string& authored, const PlannedWiki& planned, const TitleIndex& titles,
                     const PagePlan* plan) {
  const std::string own_title = plan != nullptr ? utils::fold_label(plan->title) : "";
  return read_brackets(authored, *planned.index, [&](std::string_view label) -> std::optional<std::string> {
    if (plan != nullptr && utils::fold_label(label) == own_title) return plan->page_id;
    return titles.find(label);
  });
}

}  // namespace ossilar::workers::wiki
