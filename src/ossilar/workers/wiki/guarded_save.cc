// What the host adds to a save: a turn, the version that it is made onto, and texts that no row knows.
#include <atomic>
#include <chrono>
#include <exception>

#include "ossilar/utils/files.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/orchestrator.h"
#include "ossilar/workers/wiki/page_turn.h"
#include "ossilar/workers/wiki/page_version.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

// Some hundred saves of a page can go before within this time.
constexpr std::chrono::milliseconds kTurnPatience = std::chrono::seconds(10);

// Another process that holds the lock is not to keep a save from being answered that is on disk.
constexpr std::chrono::milliseconds kListsPatience = std::chrono::seconds(2);

// One more while it lives.
class Counted {
 public:
  explicit Counted(std::atomic<int>& count) : count_(count) { ++count_; }
  ~Counted() { --count_; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

 private:
  std::atomic<int>& count_;
};

const utils::Logger save_logger("ossilar.workers.wiki.guarded_save");

}  // namespace

Answer WikiGenerator::save_agent_page(const std::string& page_id, const std::optional<std::string>& content,
                                      const std::optional<std::string>& section,
                                      const std::optional<std::string>& title) {
  const Counted at_work(saves_at_work_);
  const PageTurn turn(paths_.turns(), page_id, std::min(config_.lock_timeout, kTurnPatience));
  const SplicedInto splice;
  const utils::WrittenAhead page_file;
  Answer answer = AgentSaveMixin::save_agent_page(page_id, content, section, title);
  // Of saves side by side the last waits for the lists of all.
  if (following_ && saves_at_work_ == 1 && !answer.contains("error") && !lists_are_long()) {
    utils::begin_stage("waiting for index and manifest");
    following_->wait(kListsPatience);
  }
  return answer;
}

SaveOutcome WikiGenerator::save_page(const SaveRequest& request) {
  const std::string content(utils::without_byte_order_mark(request.content));
  std::optional<ConditionalSave> conditional;
  if (request.if_version) conditional.emplace(*request.if_version, content);
  const auto keep = [&]() -> std::string {
    if (refuse_blank(request.content)) return "";
    try {
      return drafts_.keep(request.page_id, request.content);
    } catch (const std::exception& error) {  // why it was not saved is what the author must hear of
      save_logger.warning("a refused text could not be kept", error);
      return "";
    }
  };
  SaveOutcome outcome;
  try {
    outcome.answer = save_agent_page(request.page_id, content, request.section, request.title);
  } catch (const utils::Cancelled&) {
    keep();
    throw;
  } catch (const std::exception&) {
    outcome.failure = std::current_exception();
  }
  if (outcome.failure || outcome.answer.contains("error")) {
    outcome.kept = keep();
  } else if (conditional) {
    outcome.answer["version"] = conditional->drafted();
  }
  return outcome;
}

std::shared_ptr<const PlannedWiki> WikiGenerator::planned_with(const std::string& page_id) {
  auto wiki = planned();
  if (wiki->plans.find(page_id) == nullptr) wiki = prepare();
  return wiki->plans.find(page_id) == nullptr ? nullptr : wiki;
}

// The row first: a commit writes the file first, so what is seen of one that is at work is no version.
StandingPage WikiGenerator::standing_page(const std::string& page_id) {
  StandingPage page;
  page.basis = _basis(store_->get_wiki_pages(branch()).find(page_id));
  const auto file = paths_.pages / (page_id + ".md");
  if (!utils::is_regular_file(file)) return page;
  std::string bytes = utils::read_file_within(paths_.pages, file);
  const bool is_text = !utils::first_invalid_utf8(bytes);
  page.text = is_text ? utils::text_of(bytes, file.string()) : std::move(bytes);
  return page;
}

// This look spares the work of a draft that is to be refused; the one under the lock makes the condition
// exact.
std::variant<_PageDraft, Answer> WikiGenerator::_draft_agent_page(const std::string& page_id,
                                                                  std::string content,
                                                                  const std::optional<std::string>& section,
                                                                  const std::optional<std::string>& title) {
  ConditionalSave* const save = ConditionalSave::current();
  if (save != nullptr) {
    if (!planned_with(page_id)) return not_planned(page_id, planned()->plans);
    if (auto refusal = save->refusal(page_id, standing_page(page_id), texts_)) return *std::move(refusal);
  }
  auto drafted = AgentSaveMixin::_draft_agent_page(page_id, std::move(content), section, title);
  if (const auto* draft = std::get_if<_PageDraft>(&drafted); save != nullptr && draft != nullptr) {
    texts_.put(draft->markdown);
    save->set_drafted(version_of(draft->markdown));
  }
  return drafted;
}

Answer WikiGenerator::_with_section(const PagePlan& plan, const std::string& heading,
                                    const std::string& text) {
  // Before the text is read, so that a change in between is not taken for what was read.
  if (auto* splice = SplicedInto::current()) splice->version = standing_page(plan.page_id).version();
  return AgentSaveMixin::_with_section(plan, heading, text);
}

// A row says nothing of what a hand did to the file. What the save was drafted from, or onto, is to be the
// file that it replaces; and a text that no row knows is not to be lost by it.
std::optional<Answer> WikiGenerator::_commit_agent_page(const _PageDraft& draft) {
  const StandingPage page = standing_page(draft.plan->page_id);
  const ConditionalSave* const save = ConditionalSave::current();
  if (save != nullptr && page.version() != save->wanted()) return std::nullopt;
  const SplicedInto* const splice = SplicedInto::current();
  const bool spliced = splice != nullptr && splice->version;
  if (spliced && page.version() != *splice->version) return std::nullopt;

  const std::string kept = keep_replaced(page, draft);
  auto answer = commit_as_one(draft);
  if (answer && !kept.empty() && answer->contains("warnings")) {
    const std::string file = (paths_.replaced() / kept).lexically_relative(paths_.root).string();
    answer->at("warnings")
        .push_back("hand-edit: the page file was changed since it was last saved; " +
                   std::string(spliced ? "what is outside this section stays, and " : "") +
                   "the file as it was is kept in " + file);
  }
  return answer;
}

// The rows of a save are one transaction. What was written before a failure stays, as that of the page file
// does.
std::optional<Answer> WikiGenerator::commit_as_one(const _PageDraft& draft) {
  const auto group = store_->begin_group("store the page " + draft.plan->page_id);
  std::optional<Answer> answer;
  try {
    answer = AgentSaveMixin::_commit_agent_page(draft);
  } catch (...) {
    try {
      group->commit();
    } catch (const std::exception& error) {  // the first failure is the one to tell of
      save_logger.warning("what the failed save wrote before could not be stored", error);
    }
    throw;
  }
  utils::begin_stage("committing the rows");
  group->commit();
  const std::lock_guard lock(state_mutex_);
  last_committed_ = commits_;
  return answer;
}

// The name under which the text that `draft` takes the place of is kept, "" when a row knows it.
std::string WikiGenerator::keep_replaced(const StandingPage& page, const _PageDraft& draft) const {
  if (!page.text || page.basis != draft.basis || *page.text == draft.markdown) return "";
  if (page.basis && page.basis->first == _text_hash(*page.text)) return "";
  return replaced_.keep(draft.plan->page_id, *page.text);
}

}  // namespace ossilar::workers::wiki
