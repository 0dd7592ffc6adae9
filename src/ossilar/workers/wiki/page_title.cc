// Pages link each other by title, so no two pages may have the same one. The check needs all rows and all
// plans, which a save has at hand; it is only final under the write lock, where nobody else can take a title.
#include "ossilar/workers/wiki/page_title.h"

#include <algorithm>
#include <cstdint>

#include "ossilar/utils/fold.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/link_text.h"

namespace ossilar::workers::wiki {
namespace {

std::size_t count_characters(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (static_cast<std::uint8_t>(c) & 0xC0U) != 0x80U; }));
}

// The id of another page that has this title, or "". Compared by fold(), so that titles which a reader would
// take for the same are the same. Former titles do not count: a present title comes before them in every
// link. Walks over all pages, but only for a save that asks for a title.
std::string holder_of(const std::string& title, const std::string& page_id, const Plans& plans,
                      const store::StoredRows& existing) {
  const std::string wanted = utils::fold(title);
  std::string holder;
  const auto look = [&](const std::string& id, const std::string& other) {
    if (holder.empty() && id != page_id && utils::fold(other) == wanted) holder = id;
  };
  existing.for_each(
      [&](const std::string& id, const Map& row) { look(id, utils::string_member(row, "title")); });
  for (std::size_t i = 0; i < plans.size() && holder.empty(); ++i) {
    // A page with a row goes by its row's title; its planned one is free.
    if (existing.find(plans[i].page_id) == nullptr) look(plans[i].page_id, plans[i].title);
  }
  return holder;
}

Answer refuse_title(const std::string& page_id, const std::string& title, const std::string& why) {
  return {
      {"error", "page '" + page_id + "' cannot have the title '" + utils::printable(title) + "': it " + why},
      {"page_id", page_id}};
}

}  // namespace

// The title is shown on one line and linked as [title], which explains the rules. Line ends and tabs are
// asked for by name, as printable() leaves them.
std::string title_fault(std::string_view title) {
  if (title.empty()) return "is blank";
  if (count_characters(title) > kLongestTitle)
    return "is longer than " + std::to_string(kLongestTitle) + " characters";
  // U+2028 and U+2029 end a line for many readers, and printable() leaves them.
  const bool is_broken = title.find_first_of("\r\n\t") != std::string_view::npos ||
                         title.find("\xe2\x80\xa8") != std::string_view::npos ||
                         title.find("\xe2\x80\xa9") != std::string_view::npos;
  if (is_broken) return "is more than one line or holds a tab";
  if (utils::printable(title) != title) return "holds control characters";
  if (title.find_first_of("[]") != std::string_view::npos) return "holds brackets, which mark links";
  return "";
}

std::optional<std::string> agent_title(const Map* row) {
  const Map title = build_cache_member(row, AGENT_TITLE_KEY);
  const bool given = title.is_string() && !title.get_ref<const std::string&>().empty();
  return given ? std::optional(title.get<std::string>()) : std::nullopt;
}

Answer retitle(PagePlan& plan, const std::optional<std::string>& title, const Plans& plans,
               const store::StoredRows& existing) {
  if (!title || title->empty()) {
    if (auto kept = agent_title(existing.find(plan.page_id))) plan.title = *std::move(kept);
    return {};
  }
  const std::string wanted(utils::strip(*title));
  if (const std::string fault = title_fault(wanted); !fault.empty()) {
    return refuse_title(plan.page_id, *title, fault);
  }
  const std::string holder = holder_of(wanted, plan.page_id, plans, existing);
  if (!holder.empty()) return refuse_title(plan.page_id, wanted, "is the title of page '" + holder + "'");
  plan.title = wanted;
  return {};
}

}  // namespace ossilar::workers::wiki
