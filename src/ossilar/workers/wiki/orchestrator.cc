#include "ossilar/workers/wiki/orchestrator.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <tuple>

#include "ossilar/search/chunking.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/fold.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/memory.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/adoption.h"
#include "ossilar/workers/wiki/diagrams.h"
#include "ossilar/workers/wiki/digests.h"
#include "ossilar/workers/wiki/grounding.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/planner.h"
#include "ossilar/workers/wiki/prose_words.h"
#include "ossilar/workers/wiki/repo_facts.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::workers::wiki {
namespace {

// Warnings of one kind that an answer names; the rest is counted, so that an answer stays readable.
constexpr std::size_t kMostWarnings = 20;

// So large a wiki's plan, graph and lists need tens of MiB for a moment.
constexpr std::size_t kManyFiles = 20'000;
constexpr std::size_t kMostDrafts = 50;

std::vector<std::string> excluded_from_index(const WikiConfig& config) {
  return {config.dir, ".ossilar", "ossilar.toml"};
}

using CitedLines = std::tuple<std::string, std::int64_t, std::int64_t>;  // path, first, last

std::set<CitedLines> cited_lines(const std::vector<Map>& citations) {
  std::set<CitedLines> lines;
  for (const Map& citation : citations) {
    lines.emplace(utils::string_member(citation, "path"), citation.at("first").get<std::int64_t>(),
                  citation.at("last").get<std::int64_t>());
  }
  return lines;
}

// The citations of `known` that stand in `text`.
Map citations_in(const std::string& text, const std::set<CitedLines>& known) {
  Map found = Map::array();
  std::set<CitedLines> seen;
  for (const std::string_view label : bracketed(text)) {
    const auto citation = parse_citation(label);
    if (!citation) continue;
    CitedLines lines(citation->path, citation->first, citation->last);
    if (known.count(lines) == 0 || !seen.insert(std::move(lines)).second) continue;
    found.push_back({{"path", citation->path}, {"first", citation->first}, {"last", citation->last}});
  }
  return found;
}

std::map<std::string, std::string> stale_reasons(
    const std::map<std::string, std::vector<std::string>>& dependents) {
  std::map<std::string, std::string> reasons;
  for (const auto& [page_id, causes] : dependents) {
    reasons[page_id] = "what it builds on changed: " + utils::join(causes, ", ");
  }
  return reasons;
}

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

// Keeps the source index in the store.
class WikiGenerator::SourceRecords final : public source::RecordStore {
 public:
  explicit SourceRecords(store::WikiStore& store) : store_(store) {}
  void load(const Take& take) override { store_.source_records(take); }
  void update(const std::map<std::string, std::optional<std::string>>& changes) override {
    store_.update_source_records(changes);
  }

 private:
  store::WikiStore& store_;
};

WikiGenerator::WikiGenerator(Services services)
    : paths_(std::move(services.paths)),
      config_(std::move(services.config)),
      checkout_(std::move(services.checkout)),
      checkout_now_(paths_.root),
      store_(std::move(services.store)),
      embedder_(std::move(services.embedder)),
      source_records_(std::make_unique<SourceRecords>(*store_)),
      indexer_(std::make_unique<source::Indexer>(source::Indexer::Options{
          .root = paths_.root,
          .excluded = excluded_from_index(config_),
          .records = source_records_.get(),
          .watch = services.watch_sources,
          .spill = services.watch_sources ? paths_.state : std::filesystem::path()})),
      lock_({.path = paths_.lock(),
             .timeout = config_.lock_timeout,
             .holder = std::move(services.writer),
             .guards_folder = true}),
      drafts_(paths_.drafts(), kMostDrafts),
      replaced_(paths_.replaced()),
      lists_(paths_.wiki, paths_.pages, services.lists_follow_above.has_value()),
      lists_follow_above_(services.lists_follow_above.value_or(0)) {
  existing_ = store_->get_wiki_pages(branch());
  if (services.lists_follow_above) {
    following_ =
        std::make_unique<Background>([this] { return follow_with_lists(); }, [this] { tidy_store(); });
  }
}

WikiGenerator::~WikiGenerator() { following_.reset(); }

// ---- Plan and rows.

std::shared_ptr<const PlannedWiki> WikiGenerator::prepare(const source::Progress& progress) {
  const std::lock_guard one_at_a_time(prepare_mutex_);
  auto index = indexer_->refresh(progress);
  std::shared_ptr<const PlannedWiki> wiki;
  {
    const std::lock_guard lock(state_mutex_);
    wiki = planned_;
  }
  if (!wiki || wiki->index != index) {
    if (following_ && index->files().size() >= kManyFiles) utils::return_memory_at_once();
    Plans plans(amend_plan(derive_plan(*index, checkout_.name), config_, *index));
    wiki = std::make_shared<const PlannedWiki>(std::move(index), std::move(plans));
    const std::lock_guard lock(state_mutex_);
    planned_ = wiki;
  }
  return wiki;
}

std::shared_ptr<const PlannedWiki> WikiGenerator::planned() {
  {
    const std::lock_guard lock(state_mutex_);
    if (planned_) return planned_;
  }
  return prepare();
}

// Rows are read again too: what another process saved meanwhile is then seen before the draft instead of at
// its commit, which would throw the draft away.
AgentPreparation WikiGenerator::_agent_prepare() {
  utils::begin_step("planning");
  const auto wiki = prepare();
  _reread_existing();
  titles_.update(_existing(), wiki->plans);
  return {.plans = wiki->plans, .amendments = {}, .stale = {}, .remap = {}};
}

store::StoredRows WikiGenerator::_existing() const {
  const std::lock_guard lock(state_mutex_);
  return existing_;
}

void WikiGenerator::_reread_existing() {
  store::StoredRows rows = store_->get_wiki_pages(branch());
  const std::lock_guard lock(state_mutex_);
  existing_ = std::move(rows);
}

// A commit asks for it to store the row, and to store the state at last.
store::Repository& WikiGenerator::repository() {
  utils::begin_stage("storing row or state");
  return *store_;
}

// ---- The draft's services.

std::string WikiGenerator::steering_of(const PagePlan* plan) const {
  std::string steering = config_.steering;
  if (plan != nullptr && !plan->steering.empty()) {
    if (!steering.empty()) steering += "\n\n";
    steering += plan->steering;
  }
  return steering;
}

std::string WikiGenerator::_steering_text(const std::string& page_id) {
  return steering_of(planned()->plans.find(page_id));
}

GatheredContext WikiGenerator::_gather_context(const PagePlan& plan) {
  utils::begin_step("gathering the page's sources");
  const auto wiki = planned();
  const auto read = [this](const std::string& path) { return source::read_source(paths_.root, path); };
  Grounding grounding = gather_grounding(plan, wiki->plans, *wiki->index, steering_of(&plan), read);
  return {.grounding = std::move(grounding.text),
          .symbols = std::move(grounding.symbols),
          .files = std::move(grounding.files),
          .seeds = {}};
}

std::vector<Diagram> WikiGenerator::_build_diagrams(const PagePlan& plan) {
  const auto wiki = planned();
  return page_diagrams(plan, wiki->plans, wiki->graph());
}

Brackets WikiGenerator::brackets_of(const std::string& authored, const PlannedWiki& wiki,
                                    const PagePlan* plan) const {
  // The page's own title may be one that this save is about to give it.
  const std::string own_title = plan != nullptr ? utils::fold_label(plan->title) : "";
  const auto page_by_title = [&](std::string_view label) -> std::optional<std::string> {
    if (plan != nullptr && utils::fold_label(label) == own_title) return plan->page_id;
    return titles_.find(label);
  };
  return read_brackets(authored, *wiki.index, page_by_title);
}

// The grounding text has no part in a page's text; what it led to, the page's source files, is in the plan by
// now.
FinalizedPage WikiGenerator::_finalize(const PagePlan& plan, const std::string& authored,
                                       const std::vector<Diagram>& diagrams,
                                       const FinalizeOptions& /*options*/) {
  utils::begin_step("checking citations");
  const std::string text = authored_text(authored);
  const Brackets brackets = brackets_of(text, *planned(), &plan);
  FinalizedPage page =
      assemble_page(plan, split_text(text), diagrams, page_links(brackets, plan.page_id, config_.dir));
  if (auto* ahead = utils::WrittenAhead::current())
    ahead->announce(paths_.pages / (plan.page_id + ".md"), page.markdown);
  return page;
}

Map WikiGenerator::_section_cache(const std::string& body, const std::vector<Map>& citations) {
  const std::set<CitedLines> known = cited_lines(citations);
  Map sections = Map::array();
  for (const Section& section : sections_of(body)) {
    const std::string text(section.text);
    sections.push_back(Map{{"heading", section.heading},
                           {"words", prose_words(text)},
                           {"citations", citations_in(text, known).size()},
                           {"hash", utils::sha256_hex(text)}});
  }
  return {{"sections", sections}, {"words", prose_words(body)}};
}

std::map<std::string, std::string> WikiGenerator::_hashes_with_steering(
    const std::vector<std::string>& files) {
  return source_hashes(files, *planned()->index, config_.steering);
}

std::vector<std::string> WikiGenerator::citation_warnings(const std::string& markdown,
                                                          const std::string& authored) {
  const auto wiki = planned();
  const Brackets brackets = brackets_of(authored_text(authored), *wiki, nullptr);
  std::vector<std::string> warnings;
  append_warnings(warnings, brackets.invalid,
                  [&](const std::string& label) { return invalid_citation_warning(label, *wiki->index); });
  append_warnings(warnings, brackets.malformed, malformed_citation_warning);
  const std::string title = utils::plain_inline(markdown.substr(2, markdown.find('\n') - 2));
  for (const std::string& heading : leading_titles(authored)) {
    if (utils::fold(heading) == utils::fold(title)) continue;
    warnings.push_back(
        fmt::format("title: the heading '{}' at the start was taken off; the page's title is '{}' "
                    "(save with a title to rename it)",
                    heading, title));
  }
  return warnings;
}

// ---- Chunks.

// Passages that another page holds too, of those that this page holds: a save of an unrelated page never
// changes them. What two pages come to share only by this save is settled by the store, which keeps each
// passage once.
ChunkScope WikiGenerator::_chunk_scope(const std::string& page_id) {
  store::SharedPassages shared = store_->shared_passages(branch(), page_id, embedder_->model());
  return {.elsewhere = std::move(shared.embedded), .shared = std::move(shared.all)};
}

std::vector<Map> WikiGenerator::_chunk_and_embed(const std::string& searchable,
                                                 const std::vector<Map>& citations,
                                                 const StringSet& elsewhere) {
  const std::vector<search::Passage> passages = search::passages(searchable);
  utils::begin_step("embedding " + std::to_string(passages.size()) + " passage(s)");
  std::vector<std::string> hashes;
  hashes.reserve(passages.size());
  for (const search::Passage& passage : passages) hashes.push_back(utils::sha256_hex(passage.text));
  const auto vectors = passage_vectors(passages, hashes, elsewhere, *store_, *embedder_, vectors_);
  const std::set<CitedLines> known = cited_lines(citations);
  std::vector<Map> chunks;
  for (std::size_t i = 0; i < passages.size(); ++i) {
    const auto vector = vectors.find(hashes[i]);
    chunks.push_back(Map{{store::chunk_key::kPosition, i},
                         {store::chunk_key::kSection, passages[i].section},
                         {store::chunk_key::kText, passages[i].text},
                         {store::chunk_key::kHash, hashes[i]},
                         {store::chunk_key::kModel, embedder_->model()},
                         {store::chunk_key::kCitations, citations_in(passages[i].text, known)},
                         {store::chunk_key::kEmbedding,
                          vector == vectors.end() ? Map() : store::embedding_form(vector->second)}});
  }
  return chunks;
}

void WikiGenerator::_store_chunks(std::int64_t page_key, const std::string& /*page_id*/,
                                  const std::vector<Map>& chunks, const StringSet& shared_before) {
  utils::begin_stage("storing chunks and words");
  store_->store_chunks(page_key, chunks, shared_before);
  utils::begin_stage("storing digest and state");
}

// ---- Digests.

store::PageDigests WikiGenerator::_page_digests() const {
  const std::lock_guard lock(state_mutex_);
  return digests_;
}

void WikiGenerator::_set_page_digests(store::PageDigests digests) {
  const std::lock_guard lock(state_mutex_);
  digests_ = std::move(digests);
}

void WikiGenerator::_set_page_digest(const std::string& page_id, Map digest) {
  const std::lock_guard lock(state_mutex_);
  digests_.set(page_id, std::move(digest));
}

store::PageDigests WikiGenerator::_load_digests() { return store_->load_digests(branch()); }

// Takes away the digests of pages that are stored no more or give none by the plan. As long as the plan is
// the same, only digests that changed since the last time can be out of line.
void WikiGenerator::_reconcile_digests(const Plans& plans, const store::StoredRows& existing,
                                       const ReconcileOptions& options) {
  store::PageDigests digests = _page_digests();
  const store::PageDigests known = plans.same_records(reconciled_plans_) ? reconciled_ : store::PageDigests();
  std::vector<std::string> dropped;
  for_each_difference(known, digests, [&](const std::string& page_id, const Map*, const Map* now) {
    const PagePlan* plan = plans.find(page_id);
    const bool gives_digest = plan != nullptr && plan_type(*plan).unit && plan->children.empty();
    if (now != nullptr && (!gives_digest || existing.find(page_id) == nullptr)) dropped.push_back(page_id);
  });
  for (const std::string& page_id : dropped) digests.erase(page_id);
  reconciled_ = digests;
  reconciled_plans_ = plans;
  _set_page_digests(std::move(digests));
  if (options.persist) _persist_digests();
}

// With the marks that the caller is about to ask for, in one transaction: cut short in between, nothing would
// tell afterwards that they are missing.
void WikiGenerator::_persist_digests() {
  persist_digests(reconciled_plans_, [](const std::string&) { return true; }, {});
}

void WikiGenerator::persist_digests(const Plans& plans,
                                    const std::function<bool(const std::string&)>& marks_others,
                                    const StringSet& spared) {
  const store::PageDigests digests = _page_digests();
  std::vector<std::string> changed;
  for (std::string& page_id : changed_abstracts(store_->load_digests(branch()), digests))
    if (digests.find(page_id) != nullptr && marks_others(page_id)) changed.push_back(std::move(page_id));
  auto stale = stale_reasons(synthesis_dependents(plans, changed));
  std::erase_if(stale, [&](const auto& mark) { return spared.count(mark.first) > 0; });
  store_->persist_digests(branch(), digests, stale);
}

void WikiGenerator::_mark_synthesis_stale(const std::map<std::string, std::vector<std::string>>& dependents) {
  store_->mark_stale(branch(), stale_reasons(dependents));
}

// ---- The wiki's own files and state.

// Where a thread is there for it, the lists are made while the commit waits for the disk.
void WikiGenerator::_write_index_and_manifest(const WikiBuildResult& result) {
  utils::begin_stage("writing index and manifest");
  if (!following_) return write_lists(result);
  ListContent content = list_content(result);
  {
    const std::lock_guard lock(state_mutex_);
    due_ = {.content = std::move(content), .commit = ++commits_};
  }
  following_->ask();
}

bool WikiGenerator::lists_are_long() const {
  return utils::stamp_of(paths_.wiki / "manifest.json").size > lists_follow_above_;
}

ListContent WikiGenerator::list_content(const WikiBuildResult& result) {
  ListContent content{
      .over = lists_.manifest_in_place(), .rows = {}, .plans = planned()->plans, .result = result};
  content.rows = store_->get_wiki_pages(branch());
  return content;
}

void WikiGenerator::write_lists(const WikiBuildResult& result, const ManifestContent* known) {
  lists_.place(lists_.stage(list_content(result), known));
}

// The lists are made without the lock, from the rows as the commit leaves them, or as they are read when
// another came before. If the manifest that was there before the rows is still there under the lock, what
// takes its place is not older.
Background::Outcome WikiGenerator::follow_with_lists() {
  try {
    std::optional<DueLists> due;
    {
      const std::lock_guard lock(state_mutex_);
      due = std::exchange(due_, std::nullopt);
    }
    if (!due || !is_checked_out() || !std::filesystem::exists(paths_.lock()))
      return Background::Outcome::done;
    const auto outcome = place_lists(*due);
    if (outcome != Background::Outcome::again) return outcome;
    const std::lock_guard lock(state_mutex_);
    if (!due_) due_ = std::move(due);
    return outcome;
  } catch (const std::exception& error) {
    logger.warning(
        "index and manifest could not be written; the next save, or ossilar check --fix, writes them", error);
    return Background::Outcome::done;
  }
}

// The lock is had when the commit that asked for the lists has ended; one that failed has left nothing to
// list.
Background::Outcome WikiGenerator::place_lists(DueLists& due) {
  WikiLists::Staged staged = lists_.stage(due.content);
  auto outcome = Background::Outcome::done;
  with_write_lock([&] {
    {
      const std::lock_guard lock(state_mutex_);
      if (due.commit > last_committed_) return;
    }
    if (!is_checked_out()) return;
    if (lists_.is_current(staged)) return lists_.place(std::move(staged));
    outcome = Background::Outcome::again;
    due.content = list_content({.git_commit = _git_commit(),
                                .files_covered = _stored_files_covered(),
                                .lint = due.content.result.lint});
  });
  const bool can_follow = lists_are_long() || saves_at_work_ > 1;
  return outcome == Background::Outcome::done && can_follow ? Background::Outcome::rest : outcome;
}

// A save is not to wait for the database's log, nor the first search for the words of everything that was
// ever saved.
void WikiGenerator::tidy_store() {
  constexpr std::size_t kMostPagesWaiting = 64;
  try {
    store_->checkpoint();
    store_->index_waiting_words(kMostPagesWaiting);
  } catch (const std::exception& error) {
    logger.warning("the database could not be tidied; a later save or search will do it", error);
  }
}

// The lists of one branch are not to be put among the pages of another.
bool WikiGenerator::is_checked_out() const {
  return !checkout_.in_git || checkout_now_.read().branch == branch();
}

std::int64_t WikiGenerator::_stored_files_covered() {
  const store::StoredRows rows = store_->get_wiki_pages(branch());
  const auto count = [this](const Map* row, int by) {
    if (row == nullptr) return;
    for (const Map& file : utils::json_member(*row, "source_files")) {
      const std::string path = utils::text_form(file);
      if ((covered_files_[path] += by) == 0) covered_files_.erase(path);
    }
  };
  for_each_difference(covered_rows_, rows, [&](const std::string&, const Map* before, const Map* after) {
    count(before, -1);
    count(after, 1);
  });
  covered_rows_ = rows;
  return static_cast<std::int64_t>(covered_files_.size());
}

Map WikiGenerator::_prior_lint_summary() {
  if (!prior_lint_) prior_lint_ = load_manifest(paths_.wiki).lint;
  return *prior_lint_;
}

std::string WikiGenerator::_git_commit() { return checkout_.in_git ? checkout_now_.read().commit : ""; }

// What is drafted goes to the disk first, so that nobody waits for that with the lock held.
void WikiGenerator::_acquire_write_lock(const AcquireOptions& options) {
  utils::begin_stage("writing the page file ahead");
  if (auto* ahead = utils::WrittenAhead::current()) ahead->write();
  utils::begin_step("waiting for the write lock");
  try {
    lock_.acquire(options.wait);
    utils::begin_stage("looking again");
    if (utils::cancel_requested()) {
      lock_.release();
      utils::check_cancelled();
    }
    shield_.emplace();
  } catch (const store::LockBusy& busy) {
    throw _WikiBusy(busy.what());
  }
}

void WikiGenerator::_release_write_lock() {
  shield_.reset();
  utils::begin_stage("releasing the lock");
  lock_.release();
  utils::begin_stage("answering");
}

void WikiGenerator::with_write_lock(const std::function<void()>& work, bool wait) {
  _acquire_write_lock({.wait = wait});
  try {
    work();
  } catch (...) {
    _release_write_lock();
    throw;
  }
  _release_write_lock();
}

}  // namespace ossilar::workers::wiki
