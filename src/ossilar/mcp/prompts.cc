// A prompt is one message with all that its task needs, where the tools would take several calls: rules, the
// page as it is, its grounding, and last how to save, with the version that was just read. An agent that
// follows it cannot undo a save that came in between.
#include "ossilar/mcp/prompts.h"

#include <fmt/format.h>

#include <algorithm>

#include "ossilar/mcp/protocol/message.h"
#include "ossilar/mcp/protocol/params.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/page_claims.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::mcp {
namespace {

using workers::wiki::Answer;
using workers::wiki::PageCondition;
using workers::wiki::PageContext;
using workers::wiki::PageState;
using workers::wiki::StoredPage;
using workers::wiki::Wiki;

// Pages named by a prompt about all of them, as many as list_pages gives at a time. The number of stale pages
// is said.
constexpr std::size_t kMostStale = 50;
// Some 10,000 tokens, as much as read_page gives at a time. A longer page the agent reads itself, in
// portions.
constexpr std::size_t kLongestQuoted = std::size_t{40} * 1024;

constexpr const char* kRules = R"(## Rules of a good page

- Read the sources before you write. State only what they show; where they do not say why, do not guess.
- Begin with a summary paragraph that stands alone, then `##` sections. No `#` title: ossilar adds it.
- Cite every claim about the code as [path/to/file:L10-L20] or [path/to/file:L10], outside code, with lines
  that exist. A page with fewer than {} valid citations is refused; aim for one in each paragraph of facts.
- Link other pages of the wiki by their titles in brackets: [Title of the page].
- Keep between {} and {} words of prose. Explain what a reader cannot see from a file alone: purpose, how parts
  work together, invariants, failure modes. Do not retell the code line by line.
- Name things as the code names them, in `code`.

)";

constexpr const char* kSaving = R"(## Saving

Call save_page with page_id "{}"{} and if_version "{}". If it is refused, fix what the error names and save again;
if the answer has warnings, fix what they name and save once more.
)";

constexpr const char* kWriteWikiPlan =
    R"(Write the wiki of this repository, together with other agents. {} page(s) are missing, {} stale; {} claimed.

Do this again and again:

1. Call claim_page without page_id. You get a page that nobody else is at work on, for 30 minutes.
2. Call page_context with its page_id. Read the sources that it names; read_source and find_symbol show more.
3. Write the page, or bring a stale one in line with the source. If all of a stale page still holds, call
   confirm_page. Else call save_page with if_version: the version from page_context, "new" for a page that is
   not written. If it is refused, fix what the error names and save again. Then go to 1.

- The page is yours until it is saved or your claim ends. If you need longer, call claim_page with its page_id.
- Fix what the warnings of a save name at once, by saving once more; claim_page with the page_id makes the page
  yours again meanwhile.
- If a save is refused because the page was changed, your claim had ended and another wrote the page: leave it
  and go to 1.
- If you cannot finish a page, call claim_page with its page_id and release true, say why, and stop.
- If claim_page gave you a `holder` and your requests are of no session, or other agents share your session, pass
  it with save_page, confirm_page and later claims.

Pages that sum up others come last, once all those are written; the agent that writes the last of those goes on
with them. Stop when claim_page gives you no page: the wiki is complete, or others are at work on what can be
written now. Do not wait for them. wiki_status shows the progress of all.
)";

Map prompt(const char* name, const char* title, const char* description, const Map& arguments,
           Revision revision) {
  Map shown{{"name", name}};
  if (has_structured_results(revision)) shown["title"] = title;
  shown["description"] = description;
  shown["arguments"] = arguments;
  return shown;
}

Map argument(const char* name, const char* description, bool required) {
  return {{"name", name}, {"description", description}, {"required", required}};
}

PageContext context_of(Wiki& wiki, const std::string& page_id) {
  auto found = workers::wiki::WikiReader(wiki).page_context(page_id);
  if (const auto* refusal = std::get_if<Answer>(&found))
    throw ProtocolError(error_code::kInvalidParams, utils::string_member(*refusal, "error"));
  return std::get<PageContext>(std::move(found));
}

std::optional<StoredPage> stored_page(Wiki& wiki, const std::string& page_id) {
  auto found = workers::wiki::WikiReader(wiki).read_page(page_id);
  auto* page = std::get_if<StoredPage>(&found);
  return page == nullptr ? std::nullopt : std::optional(std::move(*page));
}

std::string rules(const Wiki& wiki, const PageContext& context) {
  const auto& type = workers::wiki::plan_type(context.plan);
  std::string text =
      fmt::format(kRules, wiki.config().min_citations_per_page, type.least_words, type.most_words);
  if (!type.required_sections.empty())
    text += "Sections that this page must have: " + utils::join(type.required_sections, ", ") + ".\n\n";
  return text;
}

// The text in a fence longer than any in it: a page has fences of its own, and the first would end a shorter
// one.
std::string quoted(const std::string& text) {
  const std::string fence = utils::fence_for(text);
  return fence + "markdown\n" + text + (text.empty() || text.back() == '\n' ? "" : "\n") + fence + "\n\n";
}

// The authored text only: this is what a save takes, and the generated part would be made again.
std::string current_text(const std::optional<StoredPage>& page) {
  if (!page) return "";
  const std::string text = workers::wiki::split_authored(page->text, "").text();
  return "## The page as it is now\n\n" +
         (text.size() > kLongestQuoted ? "It is long: read it with read_page.\n\n" : quoted(text));
}

std::string saving(const std::string& page_id, const std::string& section,
                   const std::optional<StoredPage>& page) {
  const std::string of_section = section.empty() ? "" : fmt::format(", section \"{}\"", section);
  return fmt::format(kSaving, page_id, of_section,
                     page ? page->version : std::string(workers::wiki::kNoVersion));
}

std::string write_page(Wiki& wiki, const std::string& page_id, const std::string& section) {
  const PageContext context = context_of(wiki, page_id);
  const auto page = stored_page(wiki, page_id);
  std::string text = section.empty()
                         ? fmt::format("Write the wiki page '{}' (\"{}\").\n\n", page_id, context.plan.title)
                         : fmt::format("Rewrite the section '{}' of the wiki page '{}' (\"{}\").\n\n",
                                       section, page_id, context.plan.title);
  return text + rules(wiki, context) + current_text(page) + context.grounding.text + "\n" +
         saving(page_id, section, page);
}

std::string state_of(const PageState& page) {
  if (page.condition == PageCondition::stale) return "It is stale: " + page.reason + ".";
  if (page.condition == PageCondition::unverified) return "It is unverified: " + page.reason + ".";
  return "It is not stale.";
}

std::string refresh_page(Wiki& wiki, const std::string& page_id, const std::string& state) {
  const PageContext context = context_of(wiki, page_id);
  const auto page = stored_page(wiki, page_id);
  return fmt::format("Bring the wiki page '{}' (\"{}\") in line with the source. {}\n\n", page_id,
                     context.plan.title, state) +
         "Read what changed, rewrite each sentence that no longer holds, correct every citation whose lines "
         "moved, and replace only the sections that need it. If all words still hold, call confirm_page "
         "instead of saving.\n\n" +
         (context.changes.empty() ? "" : context.changes + "\n") + rules(wiki, context) + current_text(page) +
         context.grounding.text + "\n" + saving(page_id, "", page);
}

std::string refresh_all(const std::vector<PageState>& pages) {
  std::string list;
  std::size_t stale = 0;
  for (const PageState& page : pages) {
    if (page.condition != PageCondition::stale) continue;
    if (++stale <= kMostStale) list += fmt::format("- `{}`: {}\n", page.page_id, page.reason);
  }
  if (stale == 0) return "No page of the wiki is stale: there is nothing to bring in line with the source.";
  std::string text = fmt::format("{} page(s) of the wiki no longer match the source:\n\n{}", stale, list);
  if (stale > kMostStale) text += "- and more: list_pages with state \"stale\" lists them all\n";
  return text +
         "\nBring each in line with the source: read_page and page_context, read what changed, then "
         "save_page with "
         "the version you read as if_version. Keep what is still true, correct every citation whose lines "
         "moved, and "
         "replace only the sections that need it.";
}

// The states of all pages are asked for even for one page: there is no question about a single one.
std::string refresh_stale(Wiki& wiki, const std::string& page_id) {
  const std::vector<PageState> pages = workers::wiki::WikiReader(wiki).page_states();
  if (page_id.empty()) return refresh_all(pages);
  for (const PageState& page : pages) {
    if (page.page_id == page_id) return refresh_page(wiki, page_id, state_of(page));
  }
  return refresh_page(wiki, page_id, "");  // throws: there is no such page
}

std::string write_wiki(Wiki& wiki) {
  const auto states = workers::wiki::WikiReader(wiki).page_states();
  const auto count = [&](PageCondition condition) {
    return std::count_if(states.begin(), states.end(),
                         [&](const PageState& page) { return page.condition == condition; });
  };
  const auto claims = wiki.store().page_claims(wiki.branch(), workers::wiki::seconds_now());
  return fmt::format(kWriteWikiPlan, count(PageCondition::missing), count(PageCondition::stale),
                     claims.size());
}

std::string text_of(Wiki& wiki, const std::string& name, const Map& arguments) {
  const std::string page_id = optional_string(arguments, "page_id").value_or("");
  if (name == kWriteWiki) return write_wiki(wiki);
  if (name == kRefreshStale) return refresh_stale(wiki, page_id);
  if (page_id.empty())
    throw ProtocolError(error_code::kInvalidParams, "the prompt needs the argument 'page_id'");
  return write_page(wiki, page_id, optional_string(arguments, "section").value_or(""));
}

}  // namespace

Map list_prompts(workers::wiki::WikiProvider& /*provider*/, Revision revision, const Map& params) {
  if (optional_string(params, "cursor")) {
    throw ProtocolError(error_code::kInvalidParams,
                        "params.cursor is unknown: prompts/list has only one page");
  }
  const Map write = prompt(kWritePage, "Write a wiki page",
                           "What the author of a page needs to know, and the rules of a good page",
                           Map::array({argument("page_id", "the page to write", true),
                                       argument("section", "only this `##` section of it", false)}),
                           revision);
  const Map refresh = prompt(
      kRefreshStale, "Refresh stale pages",
      "What no longer matches the source and how to update it: one page, or all",
      Map::array({argument("page_id", "the stale page; without it, all stale pages", false)}), revision);
  const Map together = prompt(kWriteWiki, "Write the wiki with other agents",
                              "A plan of work by which several agents share a wiki with pages to write",
                              Map::array(), revision);
  return finished_for(revision, Map{{"prompts", Map::array({write, refresh, together})}}, kListMilliseconds);
}

Map get_prompt(workers::wiki::WikiProvider& provider, Revision revision, const Map& params) {
  const std::string name = required_string(params, "name");
  if (name != kWritePage && name != kRefreshStale && name != kWriteWiki)
    throw ProtocolError(error_code::kInvalidParams, "there is no prompt '" + name + "'");
  const std::string text = text_of(*provider.get(), name, optional_object(params, "arguments"));
  const Map message{{"role", "user"}, {"content", Map{{"type", "text"}, {"text", text}}}};
  return finished(revision, Map{{"messages", Map::array({message})}});
}

}  // namespace ossilar::mcp
