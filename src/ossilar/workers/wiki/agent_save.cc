// A save as a list of early returns: draft, lock, commit; from the draft again if the page changed meanwhile.
//
// The plain way holds the lock from reading the page until it is written. But a draft gathers sources and
// embeds text, possibly by a service on the network, and every other writer would wait for it. So a draft
// works on a snapshot, without the lock and without a write, and the commit asks under the lock whether the
// page still has the hash and the title that the draft started from.
//
// Calls of the host, and of the modules beside this one, have a fixed order with fixed arguments:
// tests/data/agent_save.txt lists them for each kind of save. A failure at any of them leaves what was
// written before it, and releases the lock.
#include "ossilar/workers/wiki/agent_save.h"

#include <algorithm>
#include <memory>

#include "ossilar/utils/best_effort.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/diagrams.h"
#include "ossilar/workers/wiki/digests.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/prose_words.h"
#include "ossilar/workers/wiki/repo_facts.h"
#include "ossilar/workers/wiki/sections.h"
#include "ossilar/workers/wiki/type_lint.h"

namespace ossilar::workers::wiki {

const utils::Logger logger("ossilar.workers.wiki.agent_save");

namespace {

std::filesystem::path page_file(const std::filesystem::path& pages_dir, const std::string& page_id) {
  return pages_dir / (page_id + ".md");
}

// The page's path relative to the wiki's root.
std::string rel_path_of(const std::string& page_id) { return "pages/" + page_id + ".md"; }

std::string basis_part(const Map& row, const char* key) {
  const Map& value = utils::member(row, key);
  return utils::truthy(value) ? utils::text_form(value) : "";
}

// The title under which other pages may link the page as it is stored; none when the row has none.
std::optional<std::string> shown_title(const Map* row) {
  const Map& title = row != nullptr ? utils::member(*row, "title") : Map();
  if (title.is_null()) return std::nullopt;
  return utils::text_form(title);
}

Answer too_few_citations(std::size_t count, std::int64_t minimum) {
  return {{"error",
           "page has " + std::to_string(count) + " valid citation(s); at least " + std::to_string(minimum) +
               " required. Cite sources as [path/to/file.py:L10-L20] using paths that exist in the index."},
          {"valid_citations", count}};
}

// The diagrams as values of the build cache; _serialize_diagrams() gives them as one text, to be hashed.
Map diagram_pairs(const std::vector<Diagram>& diagrams) {
  Map pairs = Map::array();
  for (const auto& [caption, text] : diagrams) pairs.push_back(Map::array({caption, text}));
  return pairs;
}

// The headings that `text` brings beside the section's own, which it may repeat. They are allowed, but may
// mean that a whole page was handed in for one section, so the answer names them.
std::vector<std::string> added_headings(const std::string& text, const std::string& heading) {
  std::vector<std::string> added;
  for (const std::string& candidate : section_headings(text)) {
    if (!same_heading(candidate, heading)) added.push_back(candidate);
  }
  return added;
}

std::vector<std::string> section_warnings(const std::vector<std::string>& added) {
  if (added.empty()) return {};
  return {"section-headings: the text adds section(s) " + utils::join(added, ", ")};
}

// What the lint asks of a row, taken from the draft: the page's row is written later, by the commit.
Map lint_row(const PagePlan& plan, const FinalizedPage& page) {
  return {{"page_id", plan.page_id},
          {"level", plan.level},
          {"title", plan.title},
          {"summary", page.summary},
          {"build_cache", Map{{"outline", page.outline}}}};
}

bool is_page_size(const Map& finding) {
  const Map& kind = utils::member(finding, "kind");
  return kind.is_string() && kind.get_ref<const std::string&>() == "page-size";
}

std::string finding_line(const Map& finding) {
  return utils::text_form(finding.at("kind")) + ": " + utils::text_form(finding.at("detail"));
}

}  // namespace

Basis _basis(const Map* row) {
  if (row == nullptr) return std::nullopt;
  return std::pair(basis_part(*row, "content_hash"), basis_part(*row, "title"));
}

store::PageFields row_fields(const _PageDraft& draft) {
  const PagePlan& plan = *draft.plan;
  return {.description = plan.description,
          .importance = plan.importance,
          .level = plan.level,
          .parent_section = section_of(plan),
          .rel_path = rel_path_of(plan.page_id),
          .source_files = plan.stored_source_files(),
          .source_hashes = draft.source_hashes,
          .symbols = plan.symbols,
          .related_pages = plan.related_pages,
          .citations = draft.citations,
          .content_hash = _text_hash(draft.markdown),
          .model = kAgentModel,
          .status = "ok",
          .summary = draft.summary,
          .build_cache = draft.build_cache,
          .page_type = plan.type};
}

std::optional<Answer> refuse_blank(const std::optional<std::string>& content) {
  if (content && !utils::strip(*content).empty()) return std::nullopt;
  return Answer{{"error", "content is required"}};
}

// ---- The entry.

Answer AgentSaveMixin::save_agent_page(const std::string& page_id, const std::optional<std::string>& content,
                                       const std::optional<std::string>& section,
                                       const std::optional<std::string>& title) {
  if (auto refusal = refuse_blank(content)) return *std::move(refusal);  // before any call of the host
  for (int attempt = 0; attempt < _SAVE_ATTEMPTS; ++attempt) {
    auto drafted = _draft_agent_page(page_id, *content, section, title);
    if (auto* refusal = std::get_if<Answer>(&drafted)) return std::move(*refusal);
    try {  // around this call alone: a _WikiBusy from anywhere else is a failure
      _acquire_write_lock({.wait = true});
    } catch (const _WikiBusy& busy) {
      return {{"error", busy.what()}};
    }
    if (auto answer = commit_and_release(std::get<_PageDraft>(drafted))) return *std::move(answer);
    logger.info("page '%s' changed while its save was drafted; drafting again", {page_id});
  }
  return {{"error", "page '" + page_id + "' kept changing under concurrent saves; read it and save again"},
          {"page_id", page_id}};
}

// Each way out calls the release by name. A destructor must not throw, and a failed release has to reach the
// caller. When commit and release both fail, the caller sees the release's failure: a lock that may still be
// held needs attention first. `...`, because a cancellation is no std::exception.
std::optional<Answer> AgentSaveMixin::commit_and_release(const _PageDraft& draft) {
  std::optional<Answer> answer;
  try {
    answer = _commit_agent_page(draft);
  } catch (...) {
    _release_write_lock();
    throw;
  }
  _release_write_lock();
  return answer;
}

// ---- The draft.

// What the first half of a draft settles: which page, under which title, from which version.
struct AgentSaveMixin::PageHead {
  std::shared_ptr<PagePlan> plan;
  Plans plans;
  std::optional<std::string> title;  // as requested
  Basis basis;
  std::optional<std::string> chosen;  // the title that an agent gave, now or earlier; none: planned
  std::vector<std::string> former;    // earlier titles, by which other pages may link this one
};

std::variant<_PageDraft, Answer> AgentSaveMixin::_draft_agent_page(const std::string& page_id,
                                                                   std::string content,
                                                                   const std::optional<std::string>& section,
                                                                   const std::optional<std::string>& title) {
  PageHead head{.plan = nullptr,
                .plans = _agent_prepare().plans,
                .title = title,
                .basis = {},
                .chosen = {},
                .former = {}};
  head.plan = head.plans.own(page_id);  // a copy of the record: retitling must not show in other saves
  if (!head.plan) return not_planned(page_id, head.plans);

  const store::StoredRows existing = _existing();
  const Map* stored = existing.find(page_id);
  // Before retitle(), which replaces the planned title: other pages may link this one by either of the two.
  const std::vector<std::optional<std::string>> shown{head.plan->title, shown_title(stored)};
  if (Answer refused = retitle(*head.plan, title, head.plans, existing); utils::truthy(refused))
    return refused;
  head.chosen = title && !title->empty() ? head.plan->title : agent_title(stored);
  head.former = renamed(former_titles(stored), shown, head.plan->title);
  head.basis = _basis(stored);

  // The title was settled first because a refused title needs no look at the page file.
  std::vector<std::string> notes;
  if (section) {
    Answer spliced = _with_section(*head.plan, *section, content);
    if (spliced.contains("error")) return spliced;
    content = spliced.at("content").get<std::string>();
    notes = spliced.at("warnings").get<std::vector<std::string>>();
  }
  return draft_page(std::move(head), content, notes);
}

std::variant<_PageDraft, Answer> AgentSaveMixin::draft_page(PageHead head, const std::string& content,
                                                            const std::vector<std::string>& notes) {
  PagePlan& plan = *head.plan;
  std::shared_ptr<const Map> degraded;
  std::string grounding;
  std::vector<Diagram> diagrams;
  // The scope ends with these braces: the row says which steps ran degraded while the sources were gathered
  // and the diagrams drawn, and nothing of what follows. The list outlives the scope.
  {
    const auto scope = utils::degraded_steps();
    degraded = scope.entered();
    GatheredContext context = _gather_context(plan);
    backfill_source_files(plan, context.files);
    plan.symbols = std::move(context.symbols);
    grounding = std::move(context.grounding);
    if (wiki_config().diagrams) diagrams = _build_diagrams(plan);
  }

  // The earliest point at which the valid citations are known; a refused page is not chunked and embedded.
  FinalizedPage page = _finalize(plan, content, diagrams, {.grounding = grounding});
  const std::int64_t minimum = wiki_config().min_citations_per_page;
  if (static_cast<std::int64_t>(page.citations.size()) < minimum) {
    return too_few_citations(page.citations.size(), minimum);
  }

  // A NUL between the parts: otherwise text that moves from one part to the next would keep the hash.
  const std::string separator(1, '\0');
  std::string grounding_text = std::move(grounding);
  grounding_text += separator + _serialize_diagrams(diagrams);
  grounding_text += separator + _steering_text(plan.page_id);
  std::string build_cache = build_cache_text(head, page, diagrams, _text_hash(grounding_text), *degraded);
  std::string searchable = searchable_text(page.markdown);
  StringSet elsewhere = _chunk_scope(plan.page_id).elsewhere;
  std::vector<Map> chunks = _chunk_and_embed(searchable, page.citations, elsewhere);

  // The same rule as gives_digest() of types.h: a unit page without children tells the pages above it.
  const bool gives_digest = plan_type(plan).unit && plan.children.empty();
  auto source_hashes = _hashes_with_steering(plan.source_files);
  std::optional<Map> digest;
  if (gives_digest) digest = _page_digest(plan, page.authored.body, page.citations);
  // The answer is made here and not by the commit: nothing in it needs the lock.
  Answer answer = _save_answer(plan, page, page.markdown, content, notes);
  return _PageDraft{.plan = std::move(head.plan),
                    .plans = std::move(head.plans),
                    .title = std::move(head.title),
                    .basis = std::move(head.basis),
                    .markdown = std::move(page.markdown),
                    .citations = std::move(page.citations),
                    .summary = std::move(page.summary),
                    .build_cache = std::move(build_cache),
                    .source_hashes = std::move(source_hashes),
                    .searchable = std::move(searchable),
                    .elsewhere = std::move(elsewhere),
                    .chunks = std::move(chunks),
                    .digest = std::move(digest),
                    .answer = std::move(answer)};
}

// The order of the keys is part of the text that is stored. A key of `sections` that is there already gets
// the new value in its old place, as an ordered object assigns.
std::string AgentSaveMixin::build_cache_text(const PageHead& head, const FinalizedPage& page,
                                             const std::vector<Diagram>& diagrams,
                                             const std::string& grounding_hash, const Map& degraded) {
  Map cache{{"prose", page.authored.text()},
            {"diagrams", diagram_pairs(diagrams)},
            {"grounding_hash", grounding_hash},
            {"outline", page.outline},
            {"degraded", degraded}};
  const Map sections = _section_cache(page.authored.body, page.citations);
  for (const auto& [key, value] : sections.items()) cache[key] = value;
  if (head.chosen && !head.chosen->empty()) cache[AGENT_TITLE_KEY] = *head.chosen;
  if (!head.former.empty()) cache[FORMER_TITLES_KEY] = head.former;
  return utils::json_text(cache);
}

Answer AgentSaveMixin::_with_section(const PagePlan& plan, const std::string& heading,
                                     const std::string& text) {
  const std::filesystem::path file = page_file(pages_dir(), plan.page_id);
  const std::string named = "page '" + plan.page_id + "' has no ";
  // Not the row's text: what a hand changed in the page file outside the section must stay. U+FEFF at its
  // start is text like any other.
  if (!utils::is_regular_file(file)) return {{"error", named + "saved text to replace a section of"}};
  const std::string stored = utils::read_text_file_within(pages_dir(), file, utils::ByteOrderMark::kept);
  const Authored authored = split_authored(stored, plan.description);
  auto body = replace_section(authored.body, heading, text);
  if (!body) {
    return {{"error", named + "section '" + std::string(utils::strip(heading)) + "'"},
            {"sections", section_headings(stored)}};
  }
  const std::vector<std::string> warnings = section_warnings(added_headings(text, heading));
  return {{"content", Authored{*std::move(body), authored.summary}.text()}, {"warnings", warnings}};
}

Answer AgentSaveMixin::_save_answer(const PagePlan& plan, const FinalizedPage& page,
                                    const std::string& markdown, const std::string& authored,
                                    const std::vector<std::string>& notes) {
  const std::vector<Map> findings = page_type_findings(lint_row(plan, page), markdown);
  const std::int64_t words = prose_words(page.authored.body);
  // The finding on the page's size says the same and more, so the budget is left out beside it.
  const bool too_long = std::any_of(findings.begin(), findings.end(), is_page_size);
  const auto budget = too_long ? std::nullopt : word_budget_warning(plan_type(plan), words);

  std::vector<std::string> warnings = notes;
  for (const Map& finding : findings) warnings.push_back(finding_line(finding));
  if (budget && !budget->empty()) warnings.push_back(*budget);
  for (std::string& warning : citation_warnings(markdown, authored)) warnings.push_back(std::move(warning));
  return {{"saved", true},
          {"page_id", plan.page_id},
          {"rel_path", rel_path_of(plan.page_id)},
          {"citations", page.citations.size()},
          {"words", words},
          {"warnings", warnings}};
}

// ---- The commit.

// The page file comes first: what cuts the commit short then leaves the author's text on disk, and behind it
// only what can be made from it again. With the row first, a crash would leave a row about a text that no
// file has. The row comes before the chunks, which are stored under its key.
std::optional<Answer> AgentSaveMixin::_commit_agent_page(const _PageDraft& draft) {
  PagePlan& plan = *draft.plan;
  _reread_existing();  // the draft's snapshot may be as old as the wait for the lock
  const store::StoredRows existing = _existing();
  if (_basis(existing.find(plan.page_id)) != draft.basis) return std::nullopt;
  // Again: this page is as it was, but another page may have taken the title since.
  if (Answer refused = retitle(plan, draft.title, draft.plans, existing); utils::truthy(refused))
    return refused;

  _atomic_write(page_file(pages_dir(), plan.page_id), draft.markdown);
  const std::int64_t page_key =
      repository().upsert_wiki_page(branch(), plan.page_id, plan.title, row_fields(draft));
  const ChunkScope scope = _chunk_scope(plan.page_id);
  _store_chunks(page_key, plan.page_id, chunks_for(draft, scope.elsewhere), scope.shared);
  if (draft.digest) write_digest(draft);
  _publish_agent_save();
  return draft.answer;
}

// Made again only when another save changed which passages other pages have with a vector: one that nobody
// else has any more needs a vector from here. This may embed while the lock is held; releasing the lock for
// it would reopen the race.
std::vector<Map> AgentSaveMixin::chunks_for(const _PageDraft& draft, const StringSet& elsewhere) {
  if (elsewhere == draft.elsewhere) return draft.chunks;
  return _chunk_and_embed(draft.searchable, draft.citations, elsewhere);
}

// The digests are loaded anew, as other processes store theirs, and reconciled before `before` is taken: so
// the marks are about this page's change and not about pages that left the plan. They are written once, with
// this page's digest among them, hence `persist` false.
void AgentSaveMixin::write_digest(const _PageDraft& draft) {
  _set_page_digests(_load_digests());
  _reconcile_digests(draft.plans, _existing(), {.persist = false});
  const store::PageDigests before = _page_digests();
  _set_page_digest(draft.plan->page_id, *draft.digest);
  _persist_digests();
  const auto changed = changed_abstracts(before, _page_digests());
  _mark_synthesis_stale(synthesis_dependents(draft.plans, changed));
}

// ---- The publication.

// Page file and row are written by now, so a failure here must not make the save look failed. The next save
// of the page brings lists and state up to date, and so does `ossilar check --fix`.
void AgentSaveMixin::_publish_agent_save() {
  try {
    refresh_index_and_state();
  } catch (const std::exception& error) {
    logger.warning("post-save index/state refresh failed", error);
  }
}

void AgentSaveMixin::refresh_index_and_state() {
  // Three calls in this order: designated initialisers are evaluated in the order of the members.
  const WikiBuildResult result{
      .git_commit = _git_commit(), .files_covered = _stored_files_covered(), .lint = _prior_lint_summary()};
  _write_index_and_manifest(result);
  repository().upsert_wiki_state(
      branch(), {.last_built_at = _now_iso(),
                 .last_commit = _git_commit(),
                 .changed_since_build = 0,
                 .model = kAgentModel,
                 .page_count = static_cast<std::int64_t>(repository().get_wiki_pages(branch()).size()),
                 .manifest_hash = ""});
}

}  // namespace ossilar::workers::wiki
