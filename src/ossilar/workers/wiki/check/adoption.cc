// The plain way would be to save each page file again. It would give every page the hashes of today's
// sources, so a clone of an outdated wiki would look fresh, and refuse pages with too few citations that
// still hold. So a row is made of what the page's record says. A draft by the save pipeline (redraft()) is
// only compared with the file: where it gives the same bytes, source hashes in the record included, the row
// that a save would write is the true one, field by field.
//
// Everything that decides about a page is read before its first write; digests and marks are written last, as
// they depend on which pages arrive together.
#include "ossilar/workers/wiki/check/adoption.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <system_error>
#include <utility>

#include "ossilar/utils/files.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/citing/claims.h"
#include "ossilar/workers/wiki/citing/fingerprinter.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/citing/section_cache.h"
#include "ossilar/workers/wiki/digests.h"
#include "ossilar/workers/wiki/host/digest_reconciler.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/orchestrator.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/pages/former_file.h"
#include "ossilar/workers/wiki/pages/page_files.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

// The value under `key` of an entry of format 1. Another program may have written it, so a value of another
// type counts as missing.
template <class Value>
Value entry_value(const Map& entry, const char* key) {
  const Map& value = utils::member(entry, key);
  try {
    return value.is_null() ? Value{} : value.get<Value>();
  } catch (const Map::exception&) {
    return Value{};
  }
}

PageRecord record_of_entry(const Map& entry) {
  return {.type = entry_value<std::string>(entry, "page_type"),
          .title = entry_value<std::string>(entry, "title"),
          .agent_title = entry_value<std::string>(entry, AGENT_TITLE_KEY),
          .former_titles = entry_value<std::vector<std::string>>(entry, FORMER_TITLES_KEY),
          .source_hashes = entry_value<std::map<std::string, std::string>>(entry, "source_hashes"),
          .claims = claims_of(entry_value<std::vector<Map>>(entry, "citations")),
          .confirmations = {},
          .former_ids = {}};
}

// The page's title: its heading, in the record's spelling if that is the same title (a heading has lost marks
// and runs of blanks); without a heading the recorded title, else the planned one.
std::string adopted_title(const std::string& text, const PagePlan* plan, const std::string& recorded) {
  const std::string heading = title_line(text);
  if (heading.empty()) return recorded.empty() && plan != nullptr ? plan->title : recorded;
  return title_as_heading(recorded) == heading ? recorded : heading;
}

// A build cache with the keys and the order of a save's; what only a draft could know is left empty.
Map adopted_cache(const FinalizedPage& page, const std::string& chosen,
                  const std::vector<std::string>& former, const std::vector<std::string>& ids) {
  Map cache{{"prose", page.authored.text()},
            {"diagrams", Map::array()},
            {"grounding_hash", ""},
            {"outline", page.outline},
            {"degraded", Map::array()}};
  const Map sections = section_cache(page.authored.body, page.citations);
  for (const auto& [key, value] : sections.items()) cache[key] = value;
  if (!chosen.empty()) cache[AGENT_TITLE_KEY] = chosen;
  if (!former.empty()) cache[FORMER_TITLES_KEY] = former;
  if (!ids.empty()) cache[FORMER_IDS_KEY] = ids;
  return cache;
}

// Takes from a draft what follows from the sources alone. Right only if the draft saw the sources of the
// page's record.
void take_from_sources(store::PageFields& fields, const _PageDraft& draft) {
  fields.symbols = draft.plan->symbols;
  Map cache = parsed_build_cache(fields.build_cache);
  const Map drafted = parsed_build_cache(draft.build_cache);
  for (const char* key : {"diagrams", "grounding_hash"}) cache[key] = drafted.at(key);
  fields.build_cache = utils::json_text(cache);
}

}  // namespace

// Saves nothing, so neither the task's cancellation nor the page's version matters.
std::optional<_PageDraft> redraft(Wiki& wiki, const DraftBasis& basis, const std::string& page_id,
                                  const std::string& text) {
  utils::Task task;
  auto drafted = WikiGenerator(wiki, task, {.basis = &basis}).draft(page_id, split_authored(text, "").text());
  auto* draft = std::get_if<_PageDraft>(&drafted);
  return draft == nullptr ? std::nullopt : std::optional(std::move(*draft));
}

void add_unchanged_texts(PageRecord& record, const PlannedWiki& planned, const fs::path& root) {
  Fingerprinter prints(
      *planned.index, [&](const std::string& path) { return source::read_source(root, path); }, "");
  for (KnownClaim& claim : record.claims) {
    const source::SourceFile* file = planned.index->find(claim.citation.path);
    const auto then = record.source_hashes.find(claim.citation.path);
    const bool is_same =
        file != nullptr && then != record.source_hashes.end() && file->sha256.hex() == then->second;
    if (claim.print.near.empty() && is_same) claim.print = prints.take(claim.citation);
  }
}

// ---- Adopting one page.

Adoption::Adoption(Wiki& wiki, ManifestContent manifest, const std::vector<std::string>& pages,
                   const std::vector<std::string>& leaving)
    : wiki_(wiki), manifest_(std::move(manifest)), rows_(wiki.stored_pages()) {
  basis_.planned = wiki.planned();  // for the records of pages until their files are known
  digests_ = wiki.store().load_digests(wiki.branch());
  assume_rows(pages, leaving);
}

void Adoption::assume_files(const std::vector<std::string>& pages) {
  for (const std::string& page_id : pages) {
    try {
      const auto record = record_of(page_text(wiki_.paths(), page_id));
      if (!record) continue;
      std::vector<std::string> files;
      for (const auto& [file, hash] : record->source_hashes)
        if (file != kSteeringSource) files.push_back(file);
      basis_.rows.set(page_id, Map{{"page_type", record->type},
                                   {"source_files", utils::json_text(files)},
                                   {"source_hashes", utils::json_text(record->source_hashes)},
                                   {"citations", utils::json_text(stretches_of(record->claims))}});
    } catch (const utils::Error&) {
      continue;  // as in assume_rows()
    }
  }
  basis_.planned = wiki_.planned_with_rows(basis_.rows);
}

// Pages link each other by titles that agents chose, which only their rows would tell. So each page that is
// to come gets a row of its titles first; otherwise a page would lose its links to those adopted after it.
// Before that it gets one of its files, by which the plan keeps its id.
void Adoption::assume_rows(const std::vector<std::string>& pages, const std::vector<std::string>& leaving) {
  basis_.rows = rows_;
  for (const std::string& page_id : leaving) basis_.rows.erase(page_id);
  assume_files(pages);
  for (const std::string& page_id : pages) {
    try {
      const Known known = known_of(page_id, page_text(wiki_.paths(), page_id));
      Map cache = Map::object();
      if (!known.chosen_title.empty()) cache[AGENT_TITLE_KEY] = known.chosen_title;
      if (known.record) cache[FORMER_TITLES_KEY] = known.record->former_titles;
      if (!known.former_ids.empty()) cache[FORMER_IDS_KEY] = known.former_ids;
      if (known.record && !known.record->confirmations.empty())
        cache[kConfirmations] = known.record->confirmations;
      Map row{{"title", known.title}, {"build_cache", utils::json_text(cache)}};
      // A draft keeps what the record remembers of each claim, as a save would with the row in its place.
      if (known.record) row["citations"] = utils::json_text(stretches_of(known.record->claims));
      if (known.record) row["source_hashes"] = utils::json_text(known.record->source_hashes);
      basis_.rows.set(page_id, std::move(row));
    } catch (const utils::Error&) {
      continue;  // its adoption will say what is wrong with it
    }
  }
  basis_.titles = wiki_.titles(basis_.rows, basis_.planned->plans);
}

bool Adoption::is_described(const std::string& page_id, const std::string& text) const {
  return manifest_.describes(page_id, _text_hash(text));
}

// A page without a record of its own is one of format 1, or written by hand. For the former its row knows
// what a record would say, or the entry of its manifest. The row comes first, unless the entry is about this
// very text and the row so about an older one. The row of an unverified page knows nothing of its sources.
std::optional<PageRecord> Adoption::known_record(const std::string& page_id, const std::string& text) const {
  if (auto record = record_of(text); record && record->tells_of_text()) return record;
  const Map* row = rows_.find(page_id);
  const Map* entry = manifest_.former_entry(page_id, _text_hash(text));
  std::optional<PageRecord> record;
  if (row != nullptr && !(entry != nullptr && is_described(page_id, text))) {
    if (utils::string_member(*row, "status") != kUnverified) record = record_of_row(*row);
  } else if (entry != nullptr) {
    record = record_of_entry(*entry);
  }
  if (record) add_unchanged_texts(*record, *basis_.planned, wiki_.paths().root);
  return record;
}

// A title other than the planned one was chosen by somebody and stays. Only where a manifest vouches for this
// text does its record decide: a title that the record does not call chosen was the planned one of then, and
// gives way to the plan's when the page is next saved. The record also says whether a title that is the
// planned one was chosen.
Adoption::Known Adoption::known_of(const std::string& page_id, const std::string& text) const {
  Known known{.record = known_record(page_id, text),
              .title = {},
              .chosen_title = {},
              .former_ids = {},
              .is_described = is_described(page_id, text)};
  // An unverified page that was renamed has a record of its former ids alone, which known_record() passes
  // over.
  const auto named = record_of(text);
  if (named || known.record) known.former_ids = (named ? named : known.record)->former_ids;
  const PagePlan* plan = basis_.planned->plans.find(page_id);
  known.title = adopted_title(text, plan, known.record ? known.record->title : "");
  const bool is_planned_title =
      plan == nullptr || utils::plain_inline(plan->title) == utils::plain_inline(known.title);
  if (known.is_described || is_planned_title) {
    known.chosen_title = known.record ? known.record->agent_title : "";
  } else {
    known.chosen_title = known.title;
  }
  return known;
}

// A text that is as a save left it has the claims of its record, also those whose lines are not there any
// more: they were when it was written. In any other text the citations that are valid today count; claims
// that the record has too keep what it says of them, and of all others nobody knows what they cited.
std::vector<KnownClaim> Adoption::claims_of_text(const std::string& page_id, const std::string& text,
                                                 const Known& known) const {
  const KnownClaims recorded(known.record ? known.record->claims : std::vector<KnownClaim>());
  const PagePlan* plan = basis_.planned->plans.find(page_id);
  const std::string authored = split_authored(text, "").text();
  std::vector<Citation> cited = brackets_of(authored, *basis_.planned, basis_.titles, plan).valid;
  if (known.is_described)
    for (const KnownClaim& claim : recorded.all()) cited.push_back(claim.citation);
  std::vector<KnownClaim> claims;
  for (const Claim& claim : claims_in(authored, cited)) {
    const KnownClaim* found = recorded.find(claim);
    claims.push_back(
        {claim.citation, claim.heading, claim.says, found != nullptr ? found->print : Fingerprint{}});
  }
  return claims;
}

// The versions of cited files that are checked out now, which are kept as a save keeps them.
std::map<std::string, std::string> Adoption::cited_texts(const std::vector<KnownClaim>& claims) const {
  std::map<std::string, std::string> texts;
  for (const KnownClaim& claim : claims) {
    const std::string& version = claim.print.file.hash;
    const source::SourceFile* file = basis_.planned->index->find(claim.citation.path);
    if (file == nullptr || version_hash(*file) != version || texts.count(version) > 0) continue;
    if (auto text = source::read_source(wiki_.paths().root, file->path); text && short_hash(*text) == version)
      texts.emplace(version, *std::move(text));
  }
  return texts;
}

store::PageFields Adoption::fields_of(const std::string& page_id, const std::string& text,
                                      const Known& known) const {
  const PagePlan* plan = basis_.planned->plans.find(page_id);
  PagePlan planned = plan != nullptr ? *plan : PagePlan{};
  // A page that no plan has any more is kept, with what can be said of it without a plan.
  if (plan == nullptr) planned.importance = "low";
  if (plan == nullptr)
    planned.type = known.record && !known.record->type.empty() ? known.record->type : "topic";
  FinalizedPage page = assemble_page(planned, split_authored(text, ""), {}, {});
  page.citations = stretches_of(claims_of_text(page_id, text, known));
  store::PageFields fields;
  fields.description = planned.description;
  fields.importance = planned.importance;
  fields.level = planned.level;
  fields.parent_section = section_of(planned);
  fields.rel_path = "pages/" + page_id + ".md";
  if (known.record) {
    fields.source_hashes = known.record->source_hashes;
    for (const auto& [file, hash] : fields.source_hashes)
      if (file != kSteeringSource) fields.source_files.push_back(file);
  } else {
    fields.source_files = planned.stored_source_files();
  }
  fields.related_pages = planned.related_pages;
  fields.content_hash = _text_hash(text);
  fields.status = known.record ? "ok" : kUnverified;
  fields.summary = page.summary;
  Map cache = adopted_cache(page, known.chosen_title,
                            known.record ? known.record->former_titles : std::vector<std::string>(),
                            known.former_ids);
  if (known.record && !known.record->confirmations.empty())
    cache[kConfirmations] = known.record->confirmations;
  fields.build_cache = utils::json_text(cache);
  fields.page_type = planned.type;
  fields.citations = std::move(page.citations);
  return fields;
}

// Three cases. If a save of the text would give this very file today, the row is the one that such a save
// writes. If it would not, but the sources are those of the record (a link may have changed its target), the
// row is made of the record, and the draft adds what follows from the sources. Else the row is made of the
// record alone and leaves out what nobody knows any more. A page without a record is not drafted: a draft
// would bring in the hashes of today's sources.
void Adoption::adopt_text(store::WikiStore& store, const std::string& page_id, const std::string& text,
                          const PageChange& change) {
  const Known known = known_of(page_id, text);
  const auto drafted = known.record ? redraft(wiki_, basis_, page_id, text) : std::nullopt;
  const bool is_same_file = drafted && drafted->markdown == text;
  store::PageFields fields = is_same_file ? row_fields(*drafted) : fields_of(page_id, text, known);
  if (drafted && !is_same_file && drafted->source_hashes == known.record->source_hashes)
    take_from_sources(fields, *drafted);
  // A save that replaces a text of another model than kAgentModel keeps a copy: no author has seen that text.
  fields.model = known.is_described ? kAgentModel : kAdoptedModel;
  // Before the row is written: an embedder that fails must not leave a row with the passages of another text.
  utils::Task task;
  const std::vector<Map> chunks = is_same_file ? drafted->chunks
                                               : page_chunks(wiki_.chunk_services(store, task),
                                                             searchable_text(text), fields.citations, {});
  const std::vector<KnownClaim> claims = claims_of(fields.citations);
  const auto cited = cited_texts(claims);
  // A text changed by hand keeps its stale mark: its editor may not have looked at what the mark is about.
  const std::int64_t key = known.is_described
                               ? store.upsert_wiki_page(wiki_.branch(), page_id, known.title, fields)
                               : store.upsert_keeping_mark(wiki_.branch(), page_id, known.title, fields);
  note_version(wiki_, store, page_id, change, text);
  if (known.is_described) arrived_.insert(page_id);
  store.store_chunks(key, chunks, {});
  store.keep_cited_texts(key, versions_of(claims), cited);
  settle_digest(page_id, text, known.title, !known.is_described);
}

void Adoption::settle_digest(const std::string& page_id, const std::string& text, const std::string& title,
                             bool changed_here) {
  const PagePlan* plan = basis_.planned->plans.find(page_id);
  if (!gives_digest(plan)) return;
  PagePlan titled = *plan;
  titled.title = title;
  if (changed_here || digests_.find(page_id) != nullptr) changed_.insert(page_id);
  digests_.set(page_id, _page_digest(titled, split_authored(text, "").body, {}));
}

// The row holds the authored text only, so the kept file gets the title as its heading and no generated part.
std::string Adoption::keep_former_text(const std::string& page_id) const {
  const Map* row = rows_.find(page_id);
  if (row == nullptr) return "";
  const auto cache = wiki_.store().build_cache(wiki_.branch(), page_id);
  const std::string prose = utils::string_member(parsed_build_cache(cache.value_or("")), "prose");
  if (prose.empty()) return "";
  const std::string name =
      wiki_.replaced_texts().keep(page_id, "# " + utils::string_member(*row, "title") + "\n\n" + prose);
  return (wiki_.paths().replaced() / name).lexically_relative(wiki_.paths().root).string();
}

// The text is kept first: a kill in between leaves one copy too many, not one too few.
void Adoption::forget_page(const std::string& page_id) {
  keep_former_text(page_id);
  const auto transaction = wiki_.store().begin("forget the page " + page_id);
  transaction->remove_page(wiki_.branch(), page_id);
  note_removal(wiki_, *transaction, page_id, "", "");
  transaction->commit();
  digests_.erase(page_id);
}

// Not every digest that differs from the stored one marks the pages above. One that is only new here, as all
// of a clone's are, says nothing about them, so just those in changed_ count. Pages that arrived as a
// manifest describes them are not marked: they came together with the new text and may have been written for
// it, and nothing here tells.
void Adoption::store_digests(store::WikiStore& store) {
  std::vector<std::string> changed;
  for (std::string& page_id : changed_abstracts(store.load_digests(wiki_.branch()), digests_)) {
    if (digests_.find(page_id) != nullptr && changed_.count(page_id) > 0)
      changed.push_back(std::move(page_id));
  }
  auto stale = stale_reasons(synthesis_dependents(basis_.planned->plans, changed));
  std::erase_if(stale, [&](const auto& mark) { return arrived_.count(mark.first) > 0; });
  store.persist_digests(wiki_.branch(), digests_, stale);
}

}  // namespace ossilar::workers::wiki
