// What the command and the server show of a wiki: the members of WikiGenerator that read and do not save.
#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/orchestrator.h"
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

Answer WikiGenerator::preview_agent_page(const SaveRequest& request) {
  if (auto refusal = refuse_blank(request.content)) return *std::move(refusal);
  auto drafted =
      _draft_agent_page(request.page_id, std::string(utils::without_byte_order_mark(request.content)),
                        request.section, request.title);
  if (auto* refusal = std::get_if<Answer>(&drafted)) return std::move(*refusal);
  Answer answer = std::move(std::get<_PageDraft>(drafted).answer);
  answer["saved"] = false;
  answer["dry_run"] = true;
  return answer;
}

std::vector<PageState> WikiGenerator::page_states(Look look) {
  const auto wiki = look == Look::now ? prepare() : planned();
  return wiki::page_states(wiki->plans, store_->get_wiki_pages(branch()), store_->stale_marks(branch()),
                           *wiki->index, config_.steering);
}

WikiStatus WikiGenerator::status(Look look) {
  WikiStatus status;
  status.pages = page_states(look);
  status.branch = branch();
  status.commit = _git_commit();
  status.indexed_files = planned()->index->files().size();
  status.last_write = store_->wiki_state(branch());
  return status;
}

std::variant<PageContext, Answer> WikiGenerator::page_context(const std::string& page_id) {
  AgentPreparation prepared = _agent_prepare();
  const auto plan = prepared.plans.own(page_id);
  if (!plan) return not_planned(page_id, prepared.plans);
  retitle(*plan, std::nullopt, prepared.plans, _existing());  // the title that a save will find it with
  GatheredContext gathered = _gather_context(*plan);
  backfill_source_files(*plan, gathered.files);
  plan->symbols = gathered.symbols;
  Grounding grounding{std::move(gathered.grounding), std::move(gathered.symbols), std::move(gathered.files)};
  return PageContext{*plan, std::move(grounding), steering_of(plan.get())};
}

bool WikiGenerator::has_page(const std::string& page_id) {
  return planned_with(page_id) != nullptr || stored_pages().find(page_id) != nullptr;
}

std::variant<StoredPage, Answer> WikiGenerator::read_page(const std::string& page_id) {
  if (!has_page(page_id)) return not_planned(page_id, planned()->plans);
  const auto file = paths_.pages / (page_id + ".md");
  if (!utils::is_regular_file(file)) {
    return Answer{{"error", "page '" + page_id + "' is not written yet; its context says what it needs"},
                  {"page_id", page_id}};
  }
  std::string text = utils::read_text_file_within(paths_.pages, file);
  texts_.put(text);
  std::string version = version_of(text);
  return StoredPage{.text = std::move(text), .version = std::move(version)};
}

}  // namespace ossilar::workers::wiki
