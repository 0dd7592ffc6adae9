#include "ossilar/workers/wiki/orchestrator.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "ossilar/utils/files.h"
#include "ossilar/utils/fold.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/diagrams.h"
#include "ossilar/workers/wiki/digests.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/repo_facts.h"
#include "ossilar/workers/wiki/section_cache.h"

namespace ossilar::workers::wiki {
namespace {

// Warnings of one kind that an answer names; the rest is counted, so that an answer stays readable.
constexpr std::size_t kMostWarnings = 20;

const utils::Logger host_logger("ossilar.workers.wiki.orchestrator");

template <class Describe>
void append_warnings(std::vector<std::string>& warnings, const std::vector<std::string>& labels,
                     Describe describe) {
  for (std::size_t i = 0; i < std::min(labels.size(), kMostWarnings); ++i)
    warnings.push_back(describe(labels[i]));
  if (labels.size() > kMostWarnings) {
    warnings.push_back("citation: " + std::to_string(labels.size() - kMostWarnings) + " more of this kind");
  }
}

}  // namespace

std::map<std::string, std::string> stale_reasons(
    const std::map<std::string, std::vector<std::string>>& dependents) {
  std::map<std::string, std::string> reasons;
  for (const auto& [page_id, causes] : dependents) {
    reasons[page_id] = "what it builds on changed: " + utils::join(causes, ", ");
  }
  return reasons;
}

WikiGenerator::WikiGenerator(Wiki& wiki, utils::Task& task, SaveTerms terms)
    : wiki_(wiki), task_(task), terms_(std::move(terms)) {}

WikiGenerator::~WikiGenerator() = default;

// ---- The draft.

// A version that is no longer the page's is refused before anything is paid for, and once more by the page
// file that the draft was made from, which the commit holds on to.
std::variant<_PageDraft, Answer> WikiGenerator::_draft_agent_page(const std::string& page_id,
                                                                  std::string content,
                                                                  const std::optional<std::string>& section,
                                                                  const std::optional<std::string>& title) {
  page_id_ = page_id;
  title_ = title;
  is_spliced_ = false;
  if (terms_.if_version) {
    if (!wiki_.planned_with(page_id)) return not_planned(page_id, wiki_.planned()->plans);
    standing_ = read_standing_page(pages_dir(), wiki_.paths().page(page_id));
    if (auto refusal = refuse_other_version(content)) return *std::move(refusal);
  }
  auto drafted = AgentSaveMixin::_draft_agent_page(page_id, content, section, title);
  const auto* draft = std::get_if<_PageDraft>(&drafted);
  if (draft == nullptr) return drafted;
  if (auto refusal = refuse_other_version(content)) return *std::move(refusal);
  drafted_version_ = version_of(draft->markdown);
  if (terms_.if_version) wiki_.read_texts().put(draft->markdown);
  return drafted;
}

std::optional<Answer> WikiGenerator::refuse_other_version(const std::string& content) const {
  if (!terms_.if_version) return std::nullopt;
  return refuse_version(page_id_, *terms_.if_version, standing_, wiki_.read_texts(), content);
}

// The rows before the file: a commit at work writes the file first, and is then seen by its text, which no
// row knows, instead of not at all.
AgentPreparation WikiGenerator::_agent_prepare() {
  task_.begin_step("planning");
  if (terms_.basis != nullptr) {
    planned_ = terms_.basis->planned;
    existing_ = terms_.basis->rows;
    titles_ = terms_.basis->titles;
  } else {
    planned_ = wiki_.prepare();
    existing_ = wiki_.stored_pages();
    titles_ = wiki_.titles(existing_, planned_->plans);
  }
  const bool is_planned = planned_->plans.find(page_id_) != nullptr;
  standing_ = is_planned ? read_standing_page(pages_dir(), wiki_.paths().page(page_id_)) : StandingPage{};
  return {.plans = planned_->plans, .amendments = {}, .stale = {}, .remap = {}};
}

Answer WikiGenerator::_with_section(const PagePlan& plan, const std::string& heading,
                                    const std::string& text) {
  is_spliced_ = true;
  return AgentSaveMixin::_with_section(plan, heading, text);
}

std::string WikiGenerator::_steering_text(const std::string& page_id) {
  return wiki_.steering(planned_->plans.find(page_id));
}

GatheredContext WikiGenerator::_gather_context(const PagePlan& plan) {
  task_.begin_step("gathering the page's sources");
  Grounding grounding = wiki_.gather(*planned_, plan);
  return {.grounding = std::move(grounding.text),
          .symbols = std::move(grounding.symbols),
          .files = std::move(grounding.files),
          .seeds = {}};
}

std::vector<Diagram> WikiGenerator::_build_diagrams(const PagePlan& plan) {
  return page_diagrams(plan, planned_->plans, planned_->graph());
}

// The same facts that the row is about to hold, so that a clone finds them in the page.
PageRecord WikiGenerator::record_for(const PagePlan& plan, const std::vector<Map>& citations) const {
  const Map* row = existing_.find(plan.page_id);
  const PagePlan* derived = planned_->plans.find(plan.page_id);
  const std::string stored_title = row != nullptr ? utils::string_member(*row, "title") : "";
  const bool is_given = title_ && !title_->empty();
  return {.type = plan.type,
          .title = plan.title,
          .agent_title = is_given ? plan.title : agent_title(row).value_or(""),
          .former_titles = renamed(former_titles(row), {derived->title, stored_title}, plan.title),
          .source_hashes = source_hashes(plan.source_files, *planned_->index, wiki_.config().steering),
          .citations = citations};
}

// The grounding text has no part in a page's text; what it led to, the page's source files, is in the plan by
// now.
FinalizedPage WikiGenerator::_finalize(const PagePlan& plan, const std::string& authored,
                                       const std::vector<Diagram>& diagrams,
                                       const FinalizeOptions& /*options*/) {
  task_.begin_step("checking citations");
  const std::string text = authored_text(authored);
  const Brackets brackets = brackets_of(text, *planned_, titles_, &plan);
  PageLinks links = page_links(brackets, plan.page_id, wiki_.config().dir);
  add_cited_texts(links.citations,
                  [this](const std::string& path) { return source::read_source(wiki_.paths().root, path); });
  const std::string record = record_text(record_for(plan, links.citations));
  return assemble_page(plan, split_text(text), diagrams, std::move(links), record);
}

Map WikiGenerator::_section_cache(const std::string& body, const std::vector<Map>& citations) {
  return section_cache(body, citations);
}

std::map<std::string, std::string> WikiGenerator::_hashes_with_steering(
    const std::vector<std::string>& files) {
  return source_hashes(files, *planned_->index, wiki_.config().steering);
}

std::string WikiGenerator::hand_edit_warning() const {
  const std::string name = KeptTexts::name_of(page_id_, *standing_.bytes);
  const std::string file = (wiki_.paths().replaced() / name).lexically_relative(wiki_.paths().root).string();
  return "hand-edit: the page file was changed since it was last saved; " +
         std::string(is_spliced_ ? "what is outside this section stays, and " : "") +
         "the file as it was will be kept in " + file;
}

std::vector<std::string> WikiGenerator::citation_warnings(const std::string& markdown,
                                                          const std::string& authored) {
  const Brackets brackets = brackets_of(authored_text(authored), *planned_, titles_, nullptr);
  std::vector<std::string> warnings;
  append_warnings(warnings, brackets.invalid, [&](const std::string& label) {
    return invalid_citation_warning(label, *planned_->index);
  });
  append_warnings(warnings, brackets.malformed, malformed_citation_warning);
  const std::string title = title_line(markdown);
  for (const std::string& heading : leading_titles(authored)) {
    if (utils::fold(heading) == utils::fold(title)) continue;
    warnings.push_back(
        fmt::format("title: the heading '{}' at the start was taken off; the page's title is '{}' "
                    "(save with a title to rename it)",
                    heading, title));
  }
  const bool is_replaced = standing_.bytes && standing_.text != markdown;
  if (is_replaced && _text_hash(standing_.text) != saved_hash(existing_.find(page_id_)))
    warnings.push_back(hand_edit_warning());
  return warnings;
}

// ---- Chunks.

// Passages that another page holds too, of those that this page holds: a save of an unrelated page never
// changes them. What two pages come to share only by this save is settled by the store, which keeps each
// passage once.
ChunkScope WikiGenerator::_chunk_scope(const std::string& page_id) {
  store::WikiStore& store = transaction_ ? *transaction_ : wiki_.store();
  store::SharedPassages shared = store.shared_passages(branch(), page_id, wiki_.embedder().model());
  return {.elsewhere = std::move(shared.embedded), .shared = std::move(shared.all)};
}

std::vector<Map> WikiGenerator::_chunk_and_embed(const std::string& searchable,
                                                 const std::vector<Map>& citations,
                                                 const StringSet& elsewhere) {
  store::WikiStore& store = transaction_ ? *transaction_ : wiki_.store();
  return page_chunks(wiki_.chunk_services(store, task_), searchable, citations, elsewhere);
}

void WikiGenerator::_store_chunks(std::int64_t page_key, const std::string& /*page_id*/,
                                  const std::vector<Map>& chunks, const StringSet& shared_before) {
  task_.begin_stage("storing chunks");
  transaction_->store_chunks(page_key, chunks, shared_before);
}

// ---- The commit.

void WikiGenerator::_acquire_write_lock(const AcquireOptions& options) {
  task_.begin_step("waiting for the write lock");
  wiki_.acquire_write_lock(options.wait, task_);
  task_.begin_stage("holding the write lock");
  if (task_.is_cancelled()) {
    wiki_.release_write_lock();
    task_.check();
  }
  task_.raise_shield();  // a commit is not cancelled half-way
}

void WikiGenerator::_release_write_lock() {
  task_.drop_shield();
  wiki_.release_write_lock();
  task_.begin_stage("answering");
}

// A row does not record what a hand did to the page file, so the commit looks at the file too: it replaces
// only the one that the draft was made from. What happens to the file after this look is found in what comes
// back when the two swap places.
//
// Row, chunks, digests and marks are one transaction, which is on disk before index and manifest are touched.
// When a step fails, what was written before it stays.
std::optional<Answer> WikiGenerator::_commit_agent_page(const _PageDraft& draft) {
  const std::filesystem::path file = wiki_.paths().page(page_id_);
  if (read_standing_page(pages_dir(), file).version() != standing_.version()) return std::nullopt;
  // What the row knows before this save; and what a killed save of the same text left there.
  const IsKnown is_known = [row = saved_hash(existing_.find(page_id_)),
                            draft = _text_hash(draft.markdown)](const std::string& text) {
    const std::string hash = _text_hash(text);
    return hash == draft || hash == row;
  };
  settle_former(file, page_id_, is_known, wiki_.replaced_texts());
  transaction_ = wiki_.store().begin("store the page " + page_id_);
  std::optional<Answer> answer;
  try {
    answer = AgentSaveMixin::_commit_agent_page(draft);
  } catch (...) {
    keep_what_was_written();
    look_at_former_file(is_known);
    throw;
  }
  transaction_.reset();  // of a save that wrote nothing
  look_at_former_file(is_known);
  return answer;
}

void WikiGenerator::put_on_disk() {
  task_.begin_stage("committing the rows");
  const auto transaction = std::exchange(transaction_, nullptr);
  transaction->commit();
}

void WikiGenerator::keep_what_was_written() {
  try {
    if (transaction_) put_on_disk();
  } catch (const std::exception& error) {  // the first failure is the one to tell of
    host_logger.warning("what the failed save wrote before could not be stored", error);
  }
}

// The page is saved by now, so failing to put the file away fails nothing. It stays where it is until it is
// put away, before the page's next save or by a repair.
void WikiGenerator::look_at_former_file(const IsKnown& is_known) const {
  const std::filesystem::path page = wiki_.paths().page(page_id_);
  try {
    const std::string kept = settle_former(page, page_id_, is_known, wiki_.replaced_texts());
    if (!kept.empty() && kept != KeptTexts::name_of(page_id_, standing_.bytes.value_or(""))) {
      host_logger.warning("the page '%s' was edited by hand while it was saved; that text is kept in %s",
                          {page_id_, (wiki_.paths().replaced() / kept).string()});
    }
  } catch (const std::exception& error) {
    host_logger.warning("what the page file held before lies in %s and could not be put away: %s",
                        {utils::former_file(page).string(), error.what()});
  }
}

store::Repository& WikiGenerator::repository() {
  if (transaction_) return *transaction_;
  return wiki_.store();
}

void WikiGenerator::_reread_existing() { existing_ = transaction_->get_wiki_pages(branch()); }

store::PageDigests WikiGenerator::_load_digests() { return transaction_->load_digests(branch()); }

void WikiGenerator::_reconcile_digests(const Plans& plans, const store::StoredRows& existing,
                                       const ReconcileOptions& options) {
  reconciled_plans_ = plans;
  digests_ = wiki_.digest_reconciler().reconciled(plans, existing, std::move(digests_));
  if (options.persist) _persist_digests();
}

// With the marks that the caller is about to ask for, in one step: were they lost with a step that fails in
// between, nothing would tell afterwards that they are missing.
void WikiGenerator::_persist_digests() {
  const auto changed = changed_abstracts(transaction_->load_digests(branch()), digests_);
  const auto stale = stale_reasons(synthesis_dependents(reconciled_plans_, changed));
  transaction_->persist_digests(branch(), digests_, stale);
}

void WikiGenerator::_mark_synthesis_stale(const std::map<std::string, std::vector<std::string>>& dependents) {
  transaction_->mark_stale(branch(), stale_reasons(dependents));
}

// ---- The publication.

// Index and manifest never tell of a row that is not on disk. A failure to put the rows there is the save's;
// only what follows is best effort.
void WikiGenerator::_publish_agent_save() {
  put_on_disk();
  task_.begin_stage("publishing");
  AgentSaveMixin::_publish_agent_save();
}

void WikiGenerator::_write_index_and_manifest(const WikiBuildResult& result) {
  const store::StoredRows rows = wiki_.stored_pages();  // with this page; nobody else writes now
  wiki_.note_lists(wiki_.lists().write_page(rows, result.lint, page_id_));
  task_.begin_stage("storing the state");
}

// The contract asks for it; no list of ours holds it, as it would make every two branches conflict.
std::int64_t WikiGenerator::_stored_files_covered() {
  return wiki_.covered_files().count(wiki_.stored_pages());
}

// No build of ours makes one. One that another program's build left in the manifest is passed on.
Map WikiGenerator::_prior_lint_summary() { return wiki_.lists().lint(); }

}  // namespace ossilar::workers::wiki
