// Reads without the write lock: the store gives rows as snapshots, and a page file is replaced whole, so no
// read sees half a write. Two reads may be of different moments, though, as a save can finish in between.
// Therefore read_page() takes text and version from one read of the file and asks no row for the version.
#include "ossilar/workers/wiki/asking/wiki_reader.h"

#include <algorithm>
#include <utility>

#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/asking/what_changed.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/page_title.h"

namespace ossilar::workers::wiki {

Map author_brief(const PageContext& context) {
  const PageType& type = plan_type(context.plan);
  return {{"page_id", context.plan.page_id},
          {"title", context.plan.title},
          {"type", type.name},
          {"description", context.plan.description},
          {"purpose", type.purpose},
          {"required_sections", type.required_sections},
          {"words", Map{{"least", type.least_words}, {"most", type.most_words}}},
          {"steering", context.steering}};
}

std::vector<PageState> WikiReader::page_states(Look look) const {
  const auto planned = look == Look::now ? wiki_.prepare() : wiki_.planned();
  const auto follower = wiki_.follower(*planned);
  return wiki::page_states(planned->plans, wiki_.stored_pages(), wiki_.store().stale_marks(wiki_.branch()),
                           *planned->index, wiki_.config().steering, *follower);
}

WikiStatus WikiReader::status(Look look) const {
  WikiStatus status;
  status.pages = page_states(look);
  status.branch = wiki_.branch();
  status.commit = wiki_.commit();
  status.indexed_files = wiki_.planned()->index->files().size();
  status.last_write = wiki_.store().wiki_state(wiki_.branch());
  return status;
}

// The plan as a save without a title would draft it: with the title that it would keep, and with the files
// and symbols of the grounding. The author must see what the save will work with. What retitle() returns is
// ignored: it refuses only titles that are asked for.
std::variant<PageContext, Answer> WikiReader::page_context(const std::string& page_id) const {
  const auto planned = wiki_.prepare();
  Plans plans = planned->plans;
  const auto plan = plans.own(page_id);
  if (!plan) {
    const auto standing = standing_id(page_id);
    if (!standing || *standing == page_id) return not_planned(page_id, plans);
    return Answer{{"error", "page '" + page_id + "' has the id '" + *standing + "' now"},
                  {"page_id", page_id},
                  {"similar", Map::array({*standing})}};
  }
  const store::StoredRows rows = wiki_.stored_pages();
  retitle(*plan, std::nullopt, plans, rows);
  Grounding grounding = wiki_.gather(*planned, *plan);
  backfill_source_files(*plan, grounding.files);
  plan->symbols = grounding.symbols;
  return PageContext{*plan, std::move(grounding), wiki_.steering(plan.get()),
                     what_changed(wiki_, *planned, rows, page_id)};
}

// Stored too: a page that the plan no longer has can still be read.
bool WikiReader::has_page(const std::string& page_id) const {
  // Stored ones first: they need no look at the sources.
  return wiki_.stored_pages().find(page_id) != nullptr || wiki_.planned_with(page_id) != nullptr;
}

// All rows are looked through, but only for an id that no page has. Of several pages that had it the first
// counts.
std::optional<std::string> WikiReader::standing_id(const std::string& page_id) const {
  if (has_page(page_id)) return page_id;
  std::optional<std::string> found;
  wiki_.stored_pages().for_each([&](const std::string& id, const Map& row) {
    if (found) return;
    const auto ids = former_ids(&row);
    if (std::find(ids.begin(), ids.end(), page_id) != ids.end()) found = id;
  });
  return found;
}

std::variant<StoredPage, Answer> WikiReader::read_page(const std::string& asked) const {
  wiki_.bring_in_files();
  const auto standing = standing_id(asked);
  if (!standing) return not_planned(asked, wiki_.planned()->plans);
  const std::string& page_id = *standing;
  const auto file = wiki_.paths().page(page_id);
  if (!utils::is_regular_file(file)) {
    return Answer{{"error", "page '" + page_id + "' is not written yet; its context says what it needs"},
                  {"page_id", page_id}};
  }
  std::string text = utils::read_text_file_within(wiki_.paths().pages, file);
  wiki_.read_texts().put(text);  // so that a save onto this version can later be shown what changed since
  std::string version = version_of(text);
  return StoredPage{.page_id = page_id, .text = std::move(text), .version = std::move(version)};
}

std::variant<SearchResult, Answer> WikiReader::search(const SearchRequest& request,
                                                      const utils::Task& task) const {
  return search_wiki(request, wiki_.branch(), wiki_.store(), wiki_.embedder(), task);
}

}  // namespace ossilar::workers::wiki
