// What surrounds a save. Blank content is refused before the turn is waited for: the answer depends on
// nothing else. The turn covers the save and ends before the words are indexed, so the next saver of the page
// does not wait for them. A failure is returned instead of thrown, because the caller needs two things of it:
// what failed, and under which name the text is kept.
#include "ossilar/workers/wiki/host/saving.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <variant>

#include "ossilar/utils/logging.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/host/page_turn.h"
#include "ossilar/workers/wiki/pages/section_place.h"

namespace ossilar::workers::wiki {
namespace {

const utils::Logger save_logger("ossilar.workers.wiki.saving");

// Pages whose words may wait for the next search. Indexing a page's words costs more than all else that its
// save stores, so a save leaves it to a search; the limit keeps that search from indexing all that was ever
// saved. A greater one spares saves more and lets a first search wait longer.
constexpr std::size_t kMostPagesWaiting = 64;

// Some hundred saves of the page can go first within this time, so a queue of agents gets its turns. A saver
// that hangs holds the others up no longer than this; they then draft side by side with it.
constexpr std::chrono::milliseconds kTurnPatience = std::chrono::seconds(10);

// What the pipeline is given. It takes no blank text, so a removal, which has none, hands in its heading.
// Some editors put a byte order mark first; in a section it would land in the middle of the page.
std::string content_of(const SaveRequest& request) {
  if (removes_section(request)) return request.section.value_or("");
  return std::string(utils::without_byte_order_mark(request.content));
}

// The name of the kept text, "" for none. A failure here is only logged: the author must first hear why the
// page was not saved.
std::string keep_refused(const Wiki& wiki, const SaveRequest& request) {
  try {
    return wiki.kept_drafts().keep(request.page_id, request.content);
  } catch (const std::exception& error) {
    save_logger.warning("cannot keep a copy of the refused text", error);
    return "";
  }
}

// The page is stored by now, so a failure is only logged; the next search tries again.
void index_words(Wiki& wiki) {
  try {
    wiki.store().index_waiting_words(kMostPagesWaiting);
  } catch (const std::exception& error) {
    save_logger.warning("cannot index the words of saved pages; the next search tries again", error);
  }
}

}  // namespace

SaveOutcome save_page(Wiki& wiki, const SaveRequest& request, utils::Task& task, SaveTerms terms) {
  const std::string content = content_of(request);
  if (auto refusal = refuse_blank(content))
    return {.answer = *std::move(refusal), .failure = {}, .version = {}, .kept = {}};
  const bool is_kept =
      !terms.follows && !terms.confirms && terms.restores == nullptr && !removes_section(request);
  terms.if_version = request.if_version;
  terms.place = request.place;
  WikiGenerator save(wiki, task, std::move(terms));
  SaveOutcome outcome;
  try {
    const PageTurn turn(wiki.paths().turns(), request.page_id,
                        std::min(wiki.config().lock_timeout, kTurnPatience), task);
    outcome.answer = save.save_agent_page(request.page_id, content, request.section, request.title);
  } catch (const utils::Cancelled&) {  // not a std::exception; nobody is left to be told the name
    if (is_kept) keep_refused(wiki, request);
    throw;
  } catch (const std::exception&) {
    outcome.failure = std::current_exception();
  }
  if (outcome.failure || outcome.answer.contains("error")) {
    if (is_kept) outcome.kept = keep_refused(wiki, request);
    return outcome;
  }
  outcome.version = save.drafted_version();
  if (request.if_version) outcome.answer["version"] = outcome.version;
  index_words(wiki);
  return outcome;
}

Answer preview_page(Wiki& wiki, const SaveRequest& request) {
  const std::string content = content_of(request);
  if (auto refusal = refuse_blank(content)) return *std::move(refusal);
  utils::Task task;
  SaveTerms terms;
  terms.place = request.place;
  auto drafted = WikiGenerator(wiki, task, std::move(terms))
                     .draft(request.page_id, content, request.section, request.title);
  if (auto* refusal = std::get_if<Answer>(&drafted)) return std::move(*refusal);
  Answer answer = std::move(std::get<_PageDraft>(drafted).answer);
  answer["saved"] = false;
  answer["dry_run"] = true;
  return answer;
}

}  // namespace ossilar::workers::wiki
