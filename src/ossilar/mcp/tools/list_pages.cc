#include <algorithm>

#include "ossilar/mcp/tools/schemas.h"
#include "ossilar/mcp/tools/tools.h"
#include "ossilar/workers/wiki/host/wiki_reader.h"

namespace ossilar::mcp {
namespace {

using workers::wiki::PageState;
using workers::wiki::Wiki;

constexpr int kDefaultLimit = 50;
constexpr int kMostPages = 200;  // some 10,000 tokens

Map described(const PageState& page) {
  Map shown{{"page_id", page.page_id},
            {"title", page.title},
            {"type", page.type},
            {"state", workers::wiki::condition_name(page.condition)}};
  if (!page.reason.empty()) shown["reason"] = page.reason;
  if (page.condition != workers::wiki::PageCondition::missing) {
    shown["citations"] = page.citations;
    shown["words"] = page.words;
  }
  return shown;
}

// The cursor is the id of the last page given: pages that come or go meanwhile shift nothing.
ToolResult call(Wiki& wiki, const Map& arguments, utils::Task& /*task*/) {
  const std::string state = utils::string_member(arguments, "state");
  const std::string cursor = utils::string_member(arguments, "cursor");
  const auto limit = arguments.value("limit", std::size_t{kDefaultLimit});
  const std::vector<PageState> pages = workers::wiki::WikiReader(wiki).page_states();
  auto page = pages.begin();
  if (!cursor.empty()) {
    page = std::find_if(page, pages.end(), [&](const PageState& each) { return each.page_id == cursor; });
    if (page == pages.end())
      return {Map{{"error", "no page has the id of this cursor any more; list from the start"}}, {}};
    ++page;
  }
  const auto wanted = [&](const PageState& each) {
    return state.empty() || state == workers::wiki::condition_name(each.condition);
  };
  Map result{{"pages", Map::array()}, {"total", std::count_if(pages.begin(), pages.end(), wanted)}};
  for (; page != pages.end() && result["pages"].size() < limit; ++page) {
    if (wanted(*page)) result["pages"].push_back(described(*page));
  }
  if (std::any_of(page, pages.end(), wanted)) result["next_cursor"] = result["pages"].back()["page_id"];
  return {std::move(result), {}};
}

}  // namespace

Tool list_pages_tool() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  const Map states{"missing", "stale", "unverified", "ok"};
  const Map page = object(
      {{"page_id", text("names the page in all tools")},
       {"title", text("as readers see it")},
       {"type", text("what kind of page it is: overview, architecture, module, topic")},
       {"state",
        choice(states,
               "missing: not written yet; stale: its sources changed since; unverified: a hand wrote it, "
               "and nobody knows against which sources")},
       {"reason", text("of a stale page: what changed; of an unverified one: what to do")},
       {"citations", count("valid citations of the stored page")},
       {"words", count("words of prose of the stored page")}},
      {"page_id", "title", "type", "state"});
  return {
      .name = "list_pages",
      .title = "List wiki pages",
      .description =
          "Lists the pages of the wiki's plan in reading order, with what each lacks. Start here: state "
          "\"missing\" is what there is to write, \"stale\" what no longer matches the source and why. "
          "Pages come in portions: while `next_cursor` is there, call again with it as `cursor`.",
      .reads_only = true,
      .input_schema = arguments({{"state", choice(states, "only pages in this state")},
                                 {"limit", number(1, kMostPages, kDefaultLimit, "how many pages at most")},
                                 {"cursor", text("`next_cursor` of the call before")}}),
      .output_schema = object({{"pages", list(page, "in the order of the plan")},
                               {"total", count("pages in this state, in all portions")},
                               {"next_cursor", text("there are more pages; pass this as `cursor`")}},
                              {"pages", "total"}),
      .call = call};
}

}  // namespace ossilar::mcp
