// Lists the pages of the plan and the state of each. A session gets them in portions: the cursor is the id of
// the last page given. A position would be simpler, but pages come and go between two calls, and then a
// position repeats pages or skips some.
#include <algorithm>

#include "ossilar/operations/doubts.h"
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"

namespace ossilar::operations {
namespace {

using workers::wiki::Look;
using workers::wiki::PageState;

constexpr int kDefaultPages = 50;              // some 2,500 tokens; a client that wants more at once says so
constexpr std::size_t kMostDoubtsOfPage = 20;  // of a page, in a session
constexpr int kMostPages = 200;                // some 10,000 tokens, and clients cut a result at about 25,000

// The shell's document always has every key. A session's is read by a model, so it leaves out what says
// nothing.
Map described(const PageState& page, Caller caller) {
  Map shown{{"page_id", page.page_id},
            {"title", page.title},
            {"type", page.type},
            {"state", workers::wiki::condition_name(page.condition)}};
  const bool is_whole = caller == Caller::shell;
  if (is_whole) shown["level"] = page.level;
  if (is_whole) shown["parent"] = page.parent;
  if (is_whole || !page.reason.empty()) shown["reason"] = page.reason;
  if (is_whole || page.condition != workers::wiki::PageCondition::missing) {
    shown["citations"] = page.citations;
    shown["words"] = page.words;
  }
  if (!is_whole && page.doubts.empty()) return shown;
  shown["doubts"] = doubt_list(page.doubts, is_whole ? page.doubts.size() : kMostDoubtsOfPage);
  return shown;
}

Result call_list_pages(const Asked& asked) {
  const bool is_whole = asked.caller == Caller::shell;
  const std::string state = utils::string_member(asked.arguments, "state");
  const std::string cursor = utils::string_member(asked.arguments, "cursor");
  const std::vector<PageState> pages =
      workers::wiki::WikiReader(asked.wiki).page_states(is_whole ? Look::spared : Look::now);
  const auto limit = is_whole ? pages.size() : asked.arguments.value("limit", std::size_t{kDefaultPages});
  // The cursor is looked up among all pages and not only the wanted ones: its page may be in another state by
  // now.
  auto page = pages.begin();
  if (!cursor.empty()) {
    page = std::find_if(page, pages.end(), [&](const PageState& each) { return each.page_id == cursor; });
    if (page == pages.end())
      return {.value = Map{{"error", "the page of this cursor is gone; list again without a cursor"}}};
    ++page;
  }
  const auto wanted = [&](const PageState& each) {
    return state.empty() || state == workers::wiki::condition_name(each.condition);
  };
  Map result{{"pages", Map::array()}, {"total", std::count_if(pages.begin(), pages.end(), wanted)}};
  for (; page != pages.end() && result["pages"].size() < limit; ++page) {
    if (wanted(*page)) result["pages"].push_back(described(*page, asked.caller));
  }
  // Only when a wanted page is left, so no call ends in an empty portion. There is a last page: the limit is
  // at least 1.
  if (std::any_of(page, pages.end(), wanted)) result["next_cursor"] = result["pages"].back()["page_id"];
  return {.value = std::move(result)};
}

}  // namespace

Operation list_pages() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  Map states = Map::array();
  std::vector<std::string> meanings;
  for (const auto condition : workers::wiki::kConditions) {
    states.push_back(workers::wiki::condition_name(condition));
    meanings.push_back(std::string(workers::wiki::condition_name(condition)) + ": " +
                       workers::wiki::condition_meaning(condition));
  }
  const Map page =
      object({{"page_id", text("the id that all tools take")},
              {"title", text("the page's title")},
              {"type", text("what kind of page it is: overview, architecture, module, topic")},
              {"state", choice(states, utils::join(meanings, "; ").c_str())},
              {"reason", text("what changed, or what to do")},
              {"citations", count("number of valid citations")},
              {"words", count("number of words of prose")},
              {"doubts", list(doubt_schema(), "citations that are not what or where they were")}},
             {"page_id", "title", "type", "state"});
  return {
      .command = "plan",
      .tool = "list_pages",
      .title = "List wiki pages",
      .does = "List every page of the plan with its state and the reason",
      .description =
          "Lists the pages of the wiki's plan in reading order, each with its state. Start here: a "
          "\"missing\" page is to be written, a \"stale\" one no longer matches the source; `reason` says "
          "why. A long list is split: if the result has `next_cursor`, call again with it as `cursor`.",
      .example = "ossilar plan\nossilar plan --state stale",
      .arguments = {{.name = "state",
                     .option = "--state",
                     .value = "STATE",
                     .schema = choice(states, "only pages in this state")},
                    {.name = "limit",
                     .option = {},
                     .value = {},
                     .schema = number(1, kMostPages, kDefaultPages, "the most pages to return")},
                    {.name = "cursor",
                     .option = {},
                     .value = {},
                     .schema = text("`next_cursor` of the previous call")}},
      .output_schema = object({{"pages", list(page, "in the order of the plan")},
                               {"total", count("number of pages in this state, over all calls")},
                               {"next_cursor", text("there are more pages; pass this as `cursor`")}},
                              {"pages", "total"}),
      .call = call_list_pages};
}

}  // namespace ossilar::operations
