// Saving a page that an agent wrote. It is refused unless enough valid citations ground it. It is drafted
// without a lock, and committed under the wiki's write lock if the page is still the version that the draft
// was made from; otherwise it is drafted again. wiki/pages/guides/life-of-a-save.md follows
// a save from end to end.
//
// AgentSaveMixin is the pipeline; its host is WikiGenerator (orchestrator.h), made for each save by
// host/saving.cc, which commands and sessions call.
//
// Threads: save_agent_page() may run on several threads at once. The pipeline has no lock and no state of its
// own. All that it works on is the host's, so the host must allow concurrent calls of what a draft uses (see
// the block of host members).
//
// Failures: what an agent can mend is an answer with the key `error`. Every other failure of the host or of a
// module beside this one reaches the caller unchanged. The lock is released if it was held; writes already
// made stay. Two things alone are caught: _WikiBusy while the lock is taken, which becomes the answer, and a
// std::exception while index, manifest and state are refreshed after a commit, which is logged.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/logging.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Drafts that one save makes at most. An attempt is lost when the page changed before the lock was had.
// Savers of a page take turns (host/page_turn.h), so this is rare; each lost attempt costs a whole draft with
// its embeddings, and after three the author had better read the page again.
//
// C++ reserves names of this form. Pipeline and host know the count, and the record below, by them; no other
// reason keeps them.
inline constexpr int _SAVE_ATTEMPTS = 3;

// The pipeline's one logger: info for a lost attempt, warning for a failed refresh.
extern const utils::Logger logger;

// The version of a stored page: its content hash and its title; none for a page without a row. A save
// drafts again when its commit finds another basis than its draft started from.
using Basis = std::optional<std::pair<std::string, std::string>>;

// The basis that `row` stands for; null is no row. A value that is missing, null, false, zero or empty counts
// as an empty string, any other value that is no string as its JSON text. A row without both is still a
// version, not a missing page.
Basis _basis(const Map* row);

// A save made ready without the lock: everything that its commit writes. Set once, then only read. Except
// `plan`: the commit settles its title again, and `plans`, which shares the record, shows it.
struct _PageDraft {
  std::shared_ptr<PagePlan> plan;  // one of `plans`
  Plans plans;
  std::optional<std::string> title;  // as the save asked for it
  Basis basis;
  std::string markdown;
  std::vector<Map> citations;
  std::string summary;
  std::string build_cache;  // JSON text
  std::map<std::string, std::string> source_hashes;
  std::string searchable;
  StringSet elsewhere;  // ChunkScope::elsewhere as it was when the chunks were made
  std::vector<Map> chunks;
  std::optional<Map> digest;  // none: the page gives none, see gives_digest()
  Answer answer;
};

// The fields of the row that a commit of `draft` writes.
store::PageFields row_fields(const _PageDraft& draft);

// The `model` of every row and state that a save writes. It tells a text that was saved from one that was
// adopted as it stood (pages/former_file.cc, check/adoption.h).
inline constexpr const char* kAgentModel = "agent-session";

// Arguments of host operations that are given by name.
struct AcquireOptions {
  bool wait = true;
};
struct FinalizeOptions {
  std::string grounding;
};
struct ReconcileOptions {
  bool persist = true;
};

// Results of host operations that give several. A save uses `plans` alone of the first, and all but `seeds`
// of the second.
struct AgentPreparation {
  Plans plans;
  std::vector<Map> amendments;
  StringSet stale;
  Map remap;
};
struct GatheredContext {
  std::string grounding;
  std::vector<Map> symbols;
  std::vector<std::string> files;
  std::vector<Map> seeds;
};
struct ChunkScope {
  StringSet elsewhere;  // passages that other pages have with a vector: chunking need not embed them
  StringSet shared;     // passages that other pages have: storing must not drop them
};

class AgentSaveMixin {
 public:
  AgentSaveMixin() = default;
  AgentSaveMixin(const AgentSaveMixin&) = delete;
  AgentSaveMixin& operator=(const AgentSaveMixin&) = delete;
  virtual ~AgentSaveMixin() = default;

  // Saves `content` as the page's authored text, or with `section` as the text of that `##` section. A
  // `title` renames the page; without one, or with an empty one, it keeps its title. Gives what was saved, or
  // an answer with `error`. The write lock, once taken, is released on every way out.
  virtual Answer save_agent_page(const std::string& page_id, const std::optional<std::string>& content,
                                 const std::optional<std::string>& section = std::nullopt,
                                 const std::optional<std::string>& title = std::nullopt);

 protected:
  // Everything that a save writes, made from the stored version of the page; no lock, no write. An Answer is
  // a refusal.
  virtual std::variant<_PageDraft, Answer> _draft_agent_page(const std::string& page_id, std::string content,
                                                             const std::optional<std::string>& section,
                                                             const std::optional<std::string>& title);
  // The answer of a save that succeeds. Warnings in order: `notes`, lint, word budget, citations.
  virtual Answer _save_answer(const PagePlan& plan, const FinalizedPage& page, const std::string& markdown,
                              const std::string& authored, const std::vector<std::string>& notes);
  // Writes the draft; the caller holds the write lock. None, with nothing written, when the page is no longer
  // the version that was drafted from. An answer with `error` when its title cannot be had any more.
  virtual std::optional<Answer> _commit_agent_page(const _PageDraft& draft);
  // Refreshes index, manifest and wiki state after a commit. A std::exception ends it and is only logged.
  virtual void _publish_agent_save();
  // `content`, the page's whole authored text with one section replaced, and `warnings`; or an `error`. Reads
  // the page file, writes nothing; throws utils::Error for a file that is not UTF-8.
  virtual Answer _with_section(const PagePlan& plan, const std::string& heading, const std::string& text);

  // ---- What the host supplies.
  //
  // "draft": called without the lock, possibly by several saves at once and while another one commits.
  // "commit": called only while this save holds the lock. "both": either way.

  virtual store::Repository& repository() = 0;    // commit: row, state, number of pages
  virtual const std::string& branch() const = 0;  // commit: first argument of the repository's calls
  virtual const std::filesystem::path& pages_dir() const = 0;      // both: the directory of the page files
  virtual store::StoredRows _existing() const = 0;                 // both: a snapshot of the stored rows
  virtual store::PageDigests _page_digests() const = 0;            // commit: a snapshot of the digests
  virtual void _set_page_digests(store::PageDigests digests) = 0;  // commit: replaces them whole
  virtual void _set_page_digest(const std::string& page_id, Map digest) = 0;  // commit: sets one entry
  virtual AgentPreparation _agent_prepare() = 0;  // draft: the plan of all pages, records of its own
  virtual GatheredContext _gather_context(const PagePlan& plan) = 0;  // draft: grounding, symbols, sources
  virtual std::vector<Diagram> _build_diagrams(const PagePlan& plan) = 0;  // draft, when configured
  virtual FinalizedPage _finalize(const PagePlan& plan, const std::string& authored,
                                  const std::vector<Diagram>& diagrams,
                                  const FinalizeOptions& options) = 0;  // draft: the page's text, citations
  virtual std::string _steering_text(const std::string& page_id) = 0;   // draft: a part of the grounding hash
  virtual Map _section_cache(const std::string& body,
                             const std::vector<Map>& citations) = 0;  // draft: build cache
  virtual std::map<std::string, std::string> _hashes_with_steering(
      const std::vector<std::string>& files) = 0;                   // draft: what staleness compares
  virtual ChunkScope _chunk_scope(const std::string& page_id) = 0;  // both
  virtual std::vector<Map> _chunk_and_embed(
      const std::string& searchable, const std::vector<Map>& citations,
      const StringSet& elsewhere) = 0;  // draft; commit when the scope changed
  virtual void _store_chunks(std::int64_t page_key, const std::string& page_id,
                             const std::vector<Map>& chunks,
                             const StringSet& shared_before) = 0;  // commit
  virtual store::PageDigests _load_digests() = 0;                  // commit: as stored now
  virtual void _reconcile_digests(const Plans& plans, const store::StoredRows& existing,
                                  const ReconcileOptions& options) = 0;  // commit: fits them to plan and rows
  virtual void _persist_digests() = 0;                                   // commit
  virtual void _mark_synthesis_stale(
      const std::map<std::string, std::vector<std::string>>& dependents) = 0;  // commit
  virtual void _write_index_and_manifest(const WikiBuildResult& result) = 0;   // commit
  virtual std::int64_t _stored_files_covered() = 0;                            // commit
  virtual Map _prior_lint_summary() = 0;                                       // commit
  virtual std::string _git_commit() = 0;                                       // commit
  virtual void _reread_existing() = 0;                                         // commit: reloads _existing()
  virtual std::vector<std::string> citation_warnings(
      const std::string& markdown,
      const std::string& authored) = 0;                                 // draft: last warnings
  virtual void _acquire_write_lock(const AcquireOptions& options) = 0;  // throws _WikiBusy
  virtual void _release_write_lock() = 0;
  virtual const WikiConfig& wiki_config() const = 0;  // draft: diagrams, min_citations_per_page

 private:
  struct PageHead;
  std::variant<_PageDraft, Answer> draft_page(PageHead head, const std::string& content,
                                              const std::vector<std::string>& notes);
  std::string build_cache_text(const PageHead& head, const FinalizedPage& page,
                               const std::vector<Diagram>& diagrams, const std::string& grounding_hash,
                               const Map& degraded);
  std::optional<Answer> commit_and_release(const _PageDraft& draft);
  std::vector<Map> chunks_for(const _PageDraft& draft, const StringSet& elsewhere);
  void write_digest(const _PageDraft& draft);
  void refresh_index_and_state();
};

// The answer that refuses blank content: missing, empty, or Unicode white space alone. None for any other.
// host/saving.cc asks it too, so that a blank text does not wait for its turn.
std::optional<Answer> refuse_blank(const std::optional<std::string>& content);

}  // namespace ossilar::workers::wiki
