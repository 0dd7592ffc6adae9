// What the pipeline of agent_save.h asks for, in three parts: the draft reads one snapshot (draft_), the
// commit reads again under the lock (commit_), the publication reads what the commit stored.
//
// The pipeline writes the page file, then row, chunks, digests and marks, each by a call of its own. Syncing
// each of them would cost a save several syncs under the lock, so the calls share one transaction, and a
// failing step takes back itself alone. The file comes first, as rows are made from files and never the other
// way round: a kill in between leaves the whole new page with the old row, and `ossilar check --fix` makes
// the row from the file.
#include "ossilar/workers/wiki/orchestrator.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/fold.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/citing/section_cache.h"
#include "ossilar/workers/wiki/digests.h"
#include "ossilar/workers/wiki/host/author_warnings.h"
#include "ossilar/workers/wiki/host/digest_reconciler.h"
#include "ossilar/workers/wiki/host/history.h"
#include "ossilar/workers/wiki/host/save_at_work.h"
#include "ossilar/workers/wiki/host/settled_claims.h"
#include "ossilar/workers/wiki/host/wiki.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/pages/former_file.h"
#include "ossilar/workers/wiki/pages/page_outline.h"
#include "ossilar/workers/wiki/pages/page_record.h"
#include "ossilar/workers/wiki/pages/section_place.h"
#include "ossilar/workers/wiki/plan/page_diagrams.h"
#include "ossilar/workers/wiki/repo_facts.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::workers::wiki {
namespace {

const utils::Logger host_logger("ossilar.workers.wiki.orchestrator");

// As for turns among processes (saving.cc): a saver that hangs holds the others up no longer.
constexpr std::chrono::seconds kTurnAmongMachines(10);

// The page is saved by now, so a failure here is only logged. The file stays beside the page, and the page's
// next save or a repair puts it away. A kept text that the draft read is not logged: the draft's answer has
// warned of it already.
void put_former_file_away(const Wiki& wiki, const DraftAtWork& draft, const IsKnown& is_known) {
  const std::filesystem::path page = wiki.paths().page(draft.page_id);
  try {
    const std::string kept = settle_former(page, draft.page_id, is_known, wiki.replaced_texts());
    if (!kept.empty() && kept != KeptTexts::name_of(draft.page_id, draft.standing.bytes.value_or(""))) {
      host_logger.warning("the page '%s' was edited by hand while it was saved; that text is kept in %s",
                          {draft.page_id, (wiki.paths().replaced() / kept).string()});
    }
  } catch (const std::exception& error) {
    host_logger.warning("cannot put away %s, the page file before this save (run ossilar check --fix): %s",
                        {utils::former_file(page).string(), error.what()});
  }
}

// Those of the page's text, the lost ones last.
std::vector<KnownClaim> all_claims(const Settled& settled) {
  std::vector<KnownClaim> claims = settled.claims;
  claims.insert(claims.end(), settled.lost.begin(), settled.lost.end());
  return claims;
}

// What the sentences of the text are known to cite. Those of a restored version come first: its text was
// written with them, and of two claims of one sentence the first counts.
std::vector<KnownClaim> claims_before(const Map* row, const PageRecord* restored) {
  std::vector<KnownClaim> claims = restored == nullptr ? std::vector<KnownClaim>() : restored->claims;
  if (row == nullptr) return claims;
  std::vector<KnownClaim> now = remembered_claims(*row);
  claims.insert(claims.end(), now.begin(), now.end());
  return claims;
}

// The facts that the row is about to hold, so that a clone can make the same row from the page file.
// `derived` is not null: no page without a plan gets here.
PageRecord record_for(const DraftAtWork& draft, const PagePlan& plan,
                      std::map<std::string, std::string> hashes, std::vector<Map> confirmations) {
  const Map* row = draft.basis.rows.find(plan.page_id);
  const PagePlan* derived = draft.basis.planned->plans.find(plan.page_id);
  const std::string stored_title = row != nullptr ? utils::string_member(*row, "title") : "";
  const bool is_given = draft.title && !draft.title->empty();
  return {.type = plan.type,
          .title = plan.title,
          .agent_title = is_given ? plan.title : agent_title(row).value_or(""),
          .former_titles = renamed(former_titles(row), {derived->title, stored_title}, plan.title),
          .source_hashes = std::move(hashes),
          .claims = all_claims(draft.settled),
          .confirmations = std::move(confirmations),
          .former_ids = former_ids(row)};
}

}  // namespace

WikiGenerator::WikiGenerator(Wiki& wiki, utils::Task& task, SaveTerms terms)
    : wiki_(wiki),
      task_(task),
      terms_(std::move(terms)),
      draft_(std::make_unique<DraftAtWork>()),
      commit_(std::make_unique<CommitAtWork>()) {}

WikiGenerator::~WikiGenerator() = default;

const std::string& WikiGenerator::branch() const { return wiki_.branch(); }
const std::filesystem::path& WikiGenerator::pages_dir() const { return wiki_.paths().pages; }
const WikiConfig& WikiGenerator::wiki_config() const { return wiki_.config(); }
std::string WikiGenerator::_git_commit() { return wiki_.commit(); }

// A draft sees the rows of its snapshot, a commit those that it has read under the lock. With the snapshot,
// the version check of the commit would compare the draft with itself.
store::StoredRows WikiGenerator::_existing() const {
  return commit_->rows ? *commit_->rows : draft_->basis.rows;
}

// ---- The draft.

std::variant<_PageDraft, Answer> WikiGenerator::draft(const std::string& page_id, const std::string& content,
                                                      const std::optional<std::string>& section,
                                                      const std::optional<std::string>& title) {
  return _draft_agent_page(page_id, content, section, title);
}

const std::string& WikiGenerator::drafted_version() const { return draft_->version; }

// The version is compared twice: first to refuse a save before a draft is paid for (with an embedding service
// it costs seconds), then with the page file that the draft was made from, as it may have changed in between.
// The commit makes sure that it replaces that very file.
std::variant<_PageDraft, Answer> WikiGenerator::_draft_agent_page(const std::string& page_id,
                                                                  std::string content,
                                                                  const std::optional<std::string>& section,
                                                                  const std::optional<std::string>& title) {
  if (has_drafted_) wiki_.contended_pages().note_race(page_id);  // the pipeline drafts again after one
  has_drafted_ = true;
  if (!turn_) turn_ = wiki_.contended_pages().take_turn(page_id, kTurnAmongMachines, task_);
  *draft_ = {};
  draft_->page_id = page_id;
  draft_->title = title;
  *commit_ = {};
  if (terms_.if_version) {
    draft_->rows = wiki_.bring_in_files();  // the version is asked of the page as the store has it
    // Before the id becomes a path: until the plan knows it, it may be anything, "../x" for one.
    if (!wiki_.planned_with(page_id)) return not_planned(page_id, wiki_.planned()->plans);
    draft_->standing = read_standing_page(pages_dir(), wiki_.paths().page(page_id));
    if (auto refusal = refuse_other_version(content, section)) return *std::move(refusal);
  }
  auto drafted = AgentSaveMixin::_draft_agent_page(page_id, content, section, title);
  const auto* draft = std::get_if<_PageDraft>(&drafted);
  if (draft == nullptr) return drafted;
  if (auto refusal = refuse_other_version(content, section)) return *std::move(refusal);
  draft_->version = version_of(draft->markdown);
  // The author gets this version in the answer and may save onto it without reading the page again.
  if (terms_.if_version) wiki_.read_texts().put(draft->markdown);
  return drafted;
}

// A save of a section is not in the way of those of other sections. A title is the whole page's, and so is
// its version then.
std::optional<Answer> WikiGenerator::refuse_other_version(const std::string& content,
                                                          const std::optional<std::string>& section) const {
  if (!terms_.if_version) return std::nullopt;
  if (section && !draft_->title && is_section_untouched(*section)) return std::nullopt;
  return refuse_version(draft_->page_id, *terms_.if_version, draft_->standing, wiki_.read_texts(), content);
}

// Whether the section and the page's headings are now as they were in the version that the save is made onto.
// False for a version of which nothing is known.
bool WikiGenerator::is_section_untouched(const std::string& section) const {
  if (!draft_->standing.bytes) return false;
  std::string before;
  if (const auto read = wiki_.read_texts().find(*terms_.if_version)) {
    before = outline_of(*read);
  } else {
    const auto cache = wiki_.store().build_cache(branch(), draft_->page_id);
    const Map versions = utils::member(parsed_build_cache(cache.value_or("")), kVersions);
    before = utils::string_member(versions, terms_.if_version->c_str());
  }
  return !before.empty() && is_same_section(before, draft_->standing.text, section);
}

// The rows are read before the file. A commit at work writes its file first, so a draft that begins beside it
// sees a text that no row of its snapshot knows, and warns of it. Read the other way round, the old file
// could pair with the new row. Either way the commit compares file and row again, and a pair that no longer
// stands is drafted again.
//
// The file is read here, before _with_section() reads it for the text around the section: a change between
// the two reads makes the commit find another file than `standing`.
AgentPreparation WikiGenerator::_agent_prepare() {
  task_.begin_step("planning");
  if (terms_.basis != nullptr) {
    draft_->basis = *terms_.basis;
  } else {
    draft_->basis = draft_->rows ? wiki_.draft_basis(*draft_->rows) : wiki_.draft_basis();
  }
  const Plans& plans = draft_->basis.planned->plans;
  // Only a planned id may become a path. Any other is refused by the pipeline.
  if (plans.find(draft_->page_id) != nullptr)
    draft_->standing = read_standing_page(pages_dir(), wiki_.paths().page(draft_->page_id));
  return {.plans = plans, .amendments = {}, .stale = {}, .remap = {}};
}

Answer WikiGenerator::_with_section(const PagePlan& plan, const std::string& heading,
                                    const std::string& text) {
  draft_->section = heading;
  const std::filesystem::path file = wiki_.paths().page(plan.page_id);
  if (terms_.place && utils::is_regular_file(file)) {
    return with_section_placed(
        plan.page_id, utils::read_text_file_within(pages_dir(), file, utils::ByteOrderMark::kept),
        plan.description, {.content = text, .section = heading, .place = terms_.place});
  }
  return AgentSaveMixin::_with_section(plan, heading, text);
}

std::string WikiGenerator::_steering_text(const std::string& page_id) {
  return wiki_.steering(draft_->basis.planned->plans.find(page_id));
}

GatheredContext WikiGenerator::_gather_context(const PagePlan& plan) {
  task_.begin_step("gathering the page's sources");
  Grounding grounding = wiki_.gather(*draft_->basis.planned, plan);
  return {.grounding = std::move(grounding.text),
          .symbols = std::move(grounding.symbols),
          .files = std::move(grounding.files),
          .seeds = {}};
}

std::vector<Diagram> WikiGenerator::_build_diagrams(const PagePlan& plan) {
  return page_diagrams(plan, draft_->basis.planned->plans, draft_->basis.planned->graph());
}

// The options, which hold the grounding text, are not used: no part of it goes into a page. The source files
// that it found are in the plan by now.
//
// The record is made last: it holds the citations with the hashes of the lines that they cite.
FinalizedPage WikiGenerator::_finalize(const PagePlan& plan, const std::string& authored,
                                       const std::vector<Diagram>& diagrams,
                                       const FinalizeOptions& /*options*/) {
  task_.begin_step("checking citations");
  const std::string text = authored_text(authored);
  Brackets brackets = brackets_of(text, *draft_->basis.planned, draft_->basis.titles, &plan);
  Fingerprinter prints(
      *draft_->basis.planned->index,
      [this](const std::string& path) { return source::read_source(wiki_.paths().root, path); },
      wiki_.commit());
  drop_empty(brackets, prints);
  const Map* row = draft_->basis.rows.find(plan.page_id);
  const KnownClaims before(claims_before(row, terms_.restores));
  draft_->settled =
      settled_claims(text, brackets, before, vouching(), *wiki_.follower(*draft_->basis.planned), prints);
  draft_->cited_texts = prints.texts();
  draft_->brackets = brackets;
  draft_->unread.assign(prints.unread().begin(), prints.unread().end());
  PageLinks links = page_links(brackets, plan.page_id, wiki_.config().dir);
  links.citations = stretches_of(draft_->settled.claims);
  const std::string record =
      record_text(record_for(*draft_, plan, hashes_of(plan.source_files), confirmations()));
  FinalizedPage page = assemble_page(plan, split_text(text), diagrams, std::move(links), record);
  draft_->markdown = page.markdown;
  return page;
}

// With the version that this save replaces, which may be a hand's, and the one that it makes.
Map WikiGenerator::versions_with_this() const {
  const auto cache = wiki_.store().build_cache(branch(), draft_->page_id);
  Map versions = utils::member(parsed_build_cache(cache.value_or("")), kVersions);
  if (draft_->standing.bytes) {
    versions =
        with_version(std::move(versions), draft_->standing.version(), outline_of(draft_->standing.text));
  }
  return with_version(std::move(versions), version_of(draft_->markdown), outline_of(draft_->markdown));
}

Map WikiGenerator::_section_cache(const std::string& body, const std::vector<Map>& citations) {
  Map cache = section_cache(body, citations);
  cache[kVersions] = versions_with_this();
  if (!draft_->settled.lost.empty()) cache[kLostClaims] = stretches_of(draft_->settled.lost);
  if (const auto confirmed = confirmations(); !confirmed.empty()) cache[kConfirmations] = confirmed;
  if (const auto ids = former_ids(draft_->basis.rows.find(draft_->page_id)); !ids.empty())
    cache[FORMER_IDS_KEY] = ids;
  return cache;
}

std::map<std::string, std::string> WikiGenerator::_hashes_with_steering(
    const std::vector<std::string>& files) {
  return hashes_of(files);
}

Vouching WikiGenerator::vouching() const {
  return {.is_new = draft_->basis.rows.find(draft_->page_id) == nullptr,
          .follows = terms_.follows,
          .section = draft_->section,
          .confirms = terms_.confirms,
          .restores = terms_.restores != nullptr};
}

// Of a page of which only a part was looked at, the files that it rested on keep the hashes of then: the rest
// of the page was written from those. A restored text was written from the files of its record.
std::map<std::string, std::string> WikiGenerator::hashes_of(const std::vector<std::string>& files) const {
  if (terms_.restores != nullptr) return terms_.restores->source_hashes;
  const Map* row = draft_->basis.rows.find(draft_->page_id);
  if (vouching().is_whole() || row == nullptr || utils::string_member(*row, "status") == kUnverified)
    return source_hashes(files, *draft_->basis.planned->index, wiki_.config().steering);
  std::map<std::string, std::string> hashes;
  const Map then = utils::json_member(*row, "source_hashes");
  for (const auto& [file, hash] : then.items()) hashes[file] = utils::text_form(hash);
  return hashes;
}

// Those that still hold: a whole save says more than all of them, a section's says more than that section's.
std::vector<Map> WikiGenerator::confirmations() const {
  if (terms_.restores != nullptr) return terms_.restores->confirmations;
  std::vector<Map> confirmed;
  const Map* row = draft_->basis.rows.find(draft_->page_id);
  const Map cache = build_cache_of(row);
  const std::string section = terms_.confirms ? *terms_.confirms : draft_->section.value_or("");
  if (!vouching().is_whole() && utils::member(cache, kConfirmations).is_array()) {
    for (const Map& each : cache.at(kConfirmations)) {
      if (section.empty() || !same_heading(utils::string_member(each, "section"), section))
        confirmed.push_back(each);
    }
  }
  if (!terms_.confirms) return confirmed;
  Map now{{"confirmed", terms_.at}, {"commit", wiki_.commit()}};
  if (!terms_.confirms->empty()) now["section"] = *terms_.confirms;
  confirmed.push_back(std::move(now));
  return confirmed;
}

// Lines without a letter are no evidence. Those citations get no link, as other invalid ones do.
void WikiGenerator::drop_empty(Brackets& brackets, Fingerprinter& prints) {
  const auto is_empty = [&](const Citation& citation) { return !prints.is_evidence(citation); };
  for (const auto& [label, citation] : brackets.citation_labels)
    if (is_empty(citation)) draft_->empty.push_back(label);
  std::erase_if(brackets.valid, is_empty);
  std::erase_if(brackets.citation_labels, [&](const auto& each) { return is_empty(each.second); });
}

// Of a page that is stored for the first time nothing can be lost.
std::vector<std::string> WikiGenerator::loss_warnings_of(const std::string& authored) const {
  const Map* row = draft_->basis.rows.find(draft_->page_id);
  if (row == nullptr) return {};
  return loss_warnings({.before = split_authored(draft_->standing.text, "").text(),
                        .now = authored_text(authored),
                        .cited_before = utils::json_member(*row, "citations").size(),
                        .cited_now = stretches_of(draft_->settled.claims).size()});
}

std::string WikiGenerator::hand_edit_warning() const {
  const std::string name = KeptTexts::name_of(draft_->page_id, *draft_->standing.bytes);
  const std::string file = (wiki_.paths().replaced() / name).lexically_relative(wiki_.paths().root).string();
  return "hand-edit: the page file was edited since its last save; " +
         std::string(draft_->section ? "edits outside this section stay, and " : "") +
         "a copy of the edited file will be kept in " + file;
}

// A replaced text is a hand's unless a save stored it, which the row says (saved_hash()). The row's hash
// alone would not do: a text that a repair took over has a row too, and still no author has read it.
std::vector<std::string> WikiGenerator::citation_warnings(const std::string& markdown,
                                                          const std::string& authored) {
  std::vector<std::string> warnings =
      bracket_warnings(draft_->brackets, draft_->empty, *draft_->basis.planned);
  for (std::string& warning : twin_warnings(authored_text(authored))) warnings.push_back(std::move(warning));
  for (std::string& warning : loss_warnings_of(authored)) warnings.push_back(std::move(warning));
  append_warnings(warnings, draft_->settled.doubts, doubt_warning);
  append_warnings(warnings, draft_->unread, [](const std::string& label) {
    return "unverified: the file of [" + label +
           "] cannot be read, so nobody knows what it cites; save the page again when it can";
  });
  const std::string title = title_line(markdown);
  for (const std::string& heading : leading_titles(authored)) {
    if (utils::fold(heading) == utils::fold(title)) continue;  // it only repeats the title
    warnings.push_back(
        fmt::format("title: the heading '{}' at the start was removed; the page's title is '{}' "
                    "(save with a title to rename it)",
                    heading, title));
  }
  const bool is_replaced = draft_->standing.bytes && draft_->standing.text != markdown;
  if (is_replaced &&
      _text_hash(draft_->standing.text) != saved_hash(draft_->basis.rows.find(draft_->page_id)))
    warnings.push_back(hand_edit_warning());
  return warnings;
}

// ---- Chunks.

// Of the passages that this page holds, those that other pages hold too. The passages of all other pages
// would do as well, but then each save of any page would change the scope, and every commit beside another
// would make its chunks again under the lock. What two pages come to share only by this save needs no scope:
// the store keeps each passage once.
ChunkScope WikiGenerator::_chunk_scope(const std::string& page_id) {
  store::SharedPassages shared = store().shared_passages(branch(), page_id, wiki_.embedder().model());
  return {.elsewhere = std::move(shared.embedded), .shared = std::move(shared.all)};
}

std::vector<Map> WikiGenerator::_chunk_and_embed(const std::string& searchable,
                                                 const std::vector<Map>& citations,
                                                 const StringSet& elsewhere) {
  return page_chunks(wiki_.chunk_services(store(), task_), searchable, citations, elsewhere);
}

void WikiGenerator::_store_chunks(std::int64_t page_key, const std::string& /*page_id*/,
                                  const std::vector<Map>& chunks, const StringSet& shared_before) {
  task_.begin_stage("storing chunks");
  commit_->transaction->store_chunks(page_key, chunks, shared_before);
  commit_->transaction->keep_cited_texts(page_key, versions_of(all_claims(draft_->settled)),
                                         draft_->cited_texts);
  // The row lost its mark when it was written. What the mark is about was not looked at by a save of a part.
  if (!vouching().is_whole() && !commit_->mark.empty())
    commit_->transaction->mark_stale(branch(), {{draft_->page_id, commit_->mark}});
}

// ---- The commit.

void WikiGenerator::_acquire_write_lock(const AcquireOptions& options) {
  task_.begin_step("waiting for the write lock");
  wiki_.acquire_write_lock(options.wait, task_);
  task_.begin_stage("holding the write lock");
  // Looked at once more, as a cancellation can come just when the lock does. check() alone would leave by an
  // exception with the lock held: the pipeline releases it only after this function has returned.
  if (task_.is_cancelled()) {
    wiki_.release_write_lock();
    task_.check();
  }
  task_.raise_shield();  // a commit is not cancelled half-way
}

void WikiGenerator::_release_write_lock() {
  task_.drop_shield();  // first: the release may throw
  wiki_.release_write_lock();
  task_.begin_stage("answering");
}

// A row does not record manual edits, so the commit also checks the file and replaces only the one that the
// draft was made from. An edit after this check is not lost: the two files swap places, and
// put_former_file_away() looks at the one that comes back.
//
// A former file that a killed save left is put away first, as only one can lie beside a page. If that fails,
// so does the save, with nothing written.
//
// The transaction begins before the page file is written, so a database that another program keeps locked, or
// that was removed, fails the save while file and row still agree.
//
// When a step fails, the steps before it are committed all the same: the page file is new by then, and each
// of them brings the database nearer to it.
std::optional<Answer> WikiGenerator::_commit_agent_page(const _PageDraft& draft) {
  const std::filesystem::path file = wiki_.paths().page(draft_->page_id);
  if (read_standing_page(pages_dir(), file).version() != draft_->standing.version()) return std::nullopt;
  // The text that the row knew before this save; or this save's own, which is in the file already when a save
  // of the same text was killed after it had written it.
  const IsKnown is_known = [row = saved_hash(draft_->basis.rows.find(draft_->page_id)),
                            draft = _text_hash(draft.markdown)](const std::string& text) {
    const std::string hash = _text_hash(text);
    return hash == draft || hash == row;
  };
  commit_->text = draft.markdown;
  settle_former(file, draft_->page_id, is_known, wiki_.replaced_texts());
  commit_->transaction = wiki_.store().begin("store the page " + draft_->page_id);
  if (wiki_.shared_files() != nullptr) wiki_.shared_files()->note_attempt(draft_->page_id, draft.markdown);
  std::optional<Answer> answer;
  try {
    answer = AgentSaveMixin::_commit_agent_page(draft);
  } catch (...) {
    keep_what_was_written();
    put_former_file_away(wiki_, *draft_, is_known);
    if (wiki_.shared_files() != nullptr) wiki_.shared_files()->note_failure();
    throw;
  }
  commit_->transaction.reset();  // only a save that wrote nothing still has one; it is taken back
  put_former_file_away(wiki_, *draft_, is_known);
  return answer;
}

void WikiGenerator::put_on_disk() {
  task_.begin_stage("committing the rows");
  note_in_history();
  commit_rows();
}

// Taken out first: after a commit, whether or not it fails, the transaction has ended and store() must not
// use it.
void WikiGenerator::commit_rows() {
  const auto transaction = std::exchange(commit_->transaction, nullptr);
  transaction->commit();
}

// In the row's transaction: the newest version is the text that the row describes.
void WikiGenerator::note_in_history() {
  note_version(wiki_, *commit_->transaction, draft_->page_id, terms_.change, commit_->text,
               draft_->standing.text);
}

// What fails here is only logged: the caller rethrows the failure that led here.
void WikiGenerator::keep_what_was_written() {
  if (!commit_->transaction) return;
  try {
    const store::StoredRows rows = commit_->transaction->get_wiki_pages(branch());
    const Map* row = rows.find(draft_->page_id);
    const bool is_written =
        row != nullptr && utils::string_member(*row, "content_hash") == _text_hash(commit_->text);
    if (is_written) note_in_history();
  } catch (const std::exception& error) {
    host_logger.warning("cannot note the failed save in the page's history", error);
  }
  try {
    commit_rows();
  } catch (const std::exception& error) {
    host_logger.warning("cannot commit what the failed save had written", error);
  }
}

// While the transaction is open, through it: only it sees what it has written, and another write would wait
// for its end, which this thread would never come to.
store::WikiStore& WikiGenerator::store() const {
  return commit_->transaction ? *commit_->transaction : wiki_.store();
}

store::Repository& WikiGenerator::repository() { return store(); }

void WikiGenerator::_reread_existing() {
  commit_->rows = commit_->transaction->get_wiki_pages(branch());
  if (vouching().is_whole()) return;
  const auto marks = commit_->transaction->stale_marks(branch());
  const auto mark = marks.find(draft_->page_id);
  if (mark != marks.end()) commit_->mark = mark->second;
}

store::PageDigests WikiGenerator::_page_digests() const { return commit_->digests; }

void WikiGenerator::_set_page_digests(store::PageDigests digests) { commit_->digests = std::move(digests); }

void WikiGenerator::_set_page_digest(const std::string& page_id, Map digest) {
  commit_->digests.set(page_id, std::move(digest));
}

store::PageDigests WikiGenerator::_load_digests() { return commit_->transaction->load_digests(branch()); }

void WikiGenerator::_reconcile_digests(const Plans& plans, const store::StoredRows& existing,
                                       const ReconcileOptions& options) {
  commit_->reconciled_plans = plans;
  commit_->digests = wiki_.digest_reconciler().reconciled(plans, existing, std::move(commit_->digests));
  if (options.persist) _persist_digests();
}

// Sets the stale marks in the same step, although the pipeline asks for them right after this. Were they a
// step of their own and it failed, the digests would be stored and the marks lost; the next save would
// compare with the new digests, and nobody would ever notice. Setting a mark twice does no harm.
void WikiGenerator::_persist_digests() {
  const auto changed = changed_abstracts(commit_->transaction->load_digests(branch()), commit_->digests);
  const auto stale = stale_reasons(synthesis_dependents(commit_->reconciled_plans, changed));
  commit_->transaction->persist_digests(branch(), commit_->digests, stale);
}

void WikiGenerator::_mark_synthesis_stale(const std::map<std::string, std::vector<std::string>>& dependents) {
  commit_->transaction->mark_stale(branch(), stale_reasons(dependents));
}

// ---- The publication.

// The rows are committed first: index and manifest must never list a row that is not on disk. That commit
// lies outside the pipeline's own publication, which only logs failures: this one must fail the save.
void WikiGenerator::_publish_agent_save() {
  put_on_disk();
  task_.begin_stage("publishing");
  AgentSaveMixin::_publish_agent_save();
}

void WikiGenerator::_write_index_and_manifest(const WikiBuildResult& result) {
  // Read again: the commit's rows are from before the upsert. Nobody else writes now, as the lock is held.
  const store::StoredRows rows = wiki_.stored_pages();
  wiki_.note_lists(wiki_.lists().write_page(rows, result.lint, draft_->page_id));
  task_.begin_stage("storing the state");
}

// A field of the pipeline's result. None of our lists has it: a number that every save changes would bring
// every two branches into conflict.
std::int64_t WikiGenerator::_stored_files_covered() {
  return wiki_.covered_files().count(wiki_.stored_pages());
}

// We make no lint summary. One that another program left in the manifest is passed on as it is.
Map WikiGenerator::_prior_lint_summary() { return wiki_.lists().lint(); }

}  // namespace ossilar::workers::wiki
