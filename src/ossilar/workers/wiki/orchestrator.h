// The host of saves: joins source index, plan, store and search into one wiki of one working tree.
#pragma once

#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ossilar/search/embedder.h"
#include "ossilar/source/indexer.h"
#include "ossilar/store/repository.h"
#include "ossilar/store/write_lock.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/agent_save.h"
#include "ossilar/workers/wiki/background.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/grounding.h"
#include "ossilar/workers/wiki/kept_texts.h"
#include "ossilar/workers/wiki/manifest.h"
#include "ossilar/workers/wiki/module_graph.h"
#include "ossilar/workers/wiki/page_state.h"
#include "ossilar/workers/wiki/page_version.h"
#include "ossilar/workers/wiki/reembedding.h"
#include "ossilar/workers/wiki/title_index.h"
#include "ossilar/workers/wiki/vector_cache.h"
#include "ossilar/workers/wiki/wiki_check.h"
#include "ossilar/workers/wiki/wiki_lists.h"
#include "ossilar/workers/wiki/wiki_search.h"

namespace ossilar::workers::wiki {

// Where the parts of a wiki lie. All paths are absolute and free of symbolic links.
struct WikiPaths {
  std::filesystem::path root;   // of the repository
  std::filesystem::path wiki;   // the wiki's root
  std::filesystem::path pages;  // the directory of the page files
  std::filesystem::path state;  // `.ossilar`
  std::filesystem::path database() const { return state / "index.db"; }
  std::filesystem::path lock() const { return state / "write.lock"; }
  // The locks by which savers of one page take turns; a page has one of a fixed number of them.
  std::filesystem::path turns() const { return state / "turns"; }
  // The texts of refused saves.
  std::filesystem::path drafts() const { return state / "drafts"; }
  // The texts that a save or a repair took the place of and that no row knew.
  std::filesystem::path replaced() const { return state / "replaced"; }
};

// The plan of the wiki with the index that it was derived from. Immutable.
//
// Thread-safety: every member may be called from any thread.
struct PlannedWiki {
  PlannedWiki(std::shared_ptr<const source::SourceIndex> of, Plans derived)
      : index(std::move(of)), plans(std::move(derived)) {}

  // Made when it is asked for first: what does not draw does not need it.
  const ModuleGraph& graph() const {
    std::call_once(graph_made_, [this] { graph_ = module_graph(plans, *index); });
    return graph_;
  }

  const std::shared_ptr<const source::SourceIndex> index;
  const Plans plans;

 private:
  mutable std::once_flag graph_made_;
  mutable ModuleGraph graph_;
};

// Whether the sources are looked at again: a command has done so a moment ago.
enum class Look { now, spared };

struct PageContext {
  PagePlan plan;
  Grounding grounding;
  std::string steering;
};

// What the author of the page is told before the sources: its fields by name, in the order in which they are
// shown.
Map author_brief(const PageContext& context);

struct StoredPage {
  std::string text;  // the page file's
  std::string version;
};

struct SaveOutcome {
  Answer answer;               // null when the save failed
  std::exception_ptr failure;  // what it failed with
  std::string kept;            // the name of the kept draft when the text was not saved, else ""
};

struct WikiStatus {
  std::string branch;
  std::string commit;
  std::vector<PageState> pages;
  std::size_t indexed_files = 0;
  std::optional<store::WikiStateFields> last_write;
};

struct AdoptionReport {
  std::size_t adopted = 0;
  std::vector<std::string> edited;     // page ids whose file is not the one that the manifest describes
  std::vector<std::string> unplanned;  // files under the pages directory that belong to no page
  std::vector<std::string> failed;     // messages on page files that could not be read
};

// Thread-safety: every public member may be called from any thread. Saves draft side by side and commit one
// after the other, with those of other processes too. Lifetime: the indexer's record store lives in `store`.
class WikiGenerator final : public AgentSaveMixin {
 public:
  struct Services {
    WikiPaths paths;
    WikiConfig config;
    source::Checkout checkout;
    std::unique_ptr<store::WikiStore> store;
    std::unique_ptr<search::Embedder> embedder;
    std::string writer;  // names this program to those who wait for its lock: "ossilar save"
    // For a process that stays: index and manifest are written by a thread of their own, beside the commit.
    // Up to this size of the manifest, in bytes, a save is answered when they are on disk; above it they
    // follow it. None: they are written within the commit.
    std::optional<std::uint64_t> lists_follow_above = {};
    // Hears of changes of the sources, and keeps their symbols out of memory: see Indexer::Options.
    bool watch_sources = false;
  };
  explicit WikiGenerator(Services services);
  ~WikiGenerator() override;

  // As AgentSaveMixin's, in the page's turn: savers of one page queue before they draft, because of drafts
  // made side by side all but one would be thrown away. A turn is a courtesy and never waited for long; what
  // keeps saves apart is the commit's check.
  Answer save_agent_page(const std::string& page_id, const std::optional<std::string>& content,
                         const std::optional<std::string>& section = std::nullopt,
                         const std::optional<std::string>& title = std::nullopt) override;

  // Saves as save_agent_page() does. With `if_version` only onto that version: it is compared before anything
  // is paid for, and again with the version that the draft was made from, which the commit holds on to; the
  // answer of a save that was made then has `version`, the page's now. A text that is not saved, whatever the
  // reason, is kept. utils::Cancelled passes.
  SaveOutcome save_page(const SaveRequest& request);

  // What save_agent_page() would answer, with `saved` false and `dry_run` true in it; nothing is written.
  Answer preview_agent_page(const SaveRequest& request);

  // Brings the source index and the plan up to date.
  std::shared_ptr<const PlannedWiki> prepare(const source::Progress& progress = {});

  std::vector<PageState> page_states(Look look = Look::now);
  WikiStatus status(Look look = Look::now);
  // The grounding of a planned page, or the answer that says that there is none.
  std::variant<PageContext, Answer> page_context(const std::string& page_id);
  // A stored page, or the answer that says why there is none.
  std::variant<StoredPage, Answer> read_page(const std::string& page_id);
  // Whether passages are embedded with another model than the one configured; reembed() brings them up to it.
  std::optional<EmbeddingChange> embedding_change() { return wiki::embedding_change(*store_, *embedder_); }
  void reembed(const source::Progress& progress) { wiki::reembed(*store_, *embedder_, progress); }
  // The passages of the stored pages that answer the query best, or an answer that refuses it.
  std::variant<SearchResult, Answer> search(const SearchRequest& request) {
    return search_wiki(request, branch(), *store_, *embedder_);
  }
  // Whether the page is planned or stored.
  bool has_page(const std::string& page_id);
  // The rows of this branch as stored now.
  store::StoredRows stored_pages() { return store_->get_wiki_pages(branch()); }
  const KeptTexts& kept_drafts() const { return drafts_; }

  // Makes rows for the committed page files that have none on this branch, from the manifest and the plan as
  // last prepared, and writes index and manifest where they are missing. No page file is changed. Takes the
  // write lock.
  AdoptionReport adopt_pages();

  // The same for the pages that came with their manifest, from a clone, another branch or a pull: those whose
  // file is what the manifest describes and whose row is not. Looks only when the manifest is another one
  // than the last time, or a file that was not yet what it describes. Takes the write lock when there is
  // something to adopt; with `wait` false, not while another holds it. A manifest that cannot be read is
  // logged.
  AdoptionReport adopt_described(bool wait);

  // See check_wiki(). Throws store::StorageError for a database that is damaged.
  CheckReport check(bool fix);

  const WikiPaths& paths() const { return paths_; }
  std::int64_t min_citations() const { return config_.min_citations_per_page; }
  std::vector<std::string> skipped_sources() const { return indexer_->skipped(); }

 protected:
  std::variant<_PageDraft, Answer> _draft_agent_page(const std::string& page_id, std::string content,
                                                     const std::optional<std::string>& section,
                                                     const std::optional<std::string>& title) override;
  std::optional<Answer> _commit_agent_page(const _PageDraft& draft) override;
  Answer _with_section(const PagePlan& plan, const std::string& heading, const std::string& text) override;
  store::Repository& repository() override;
  const std::string& branch() const override { return checkout_.branch; }
  const std::filesystem::path& pages_dir() const override { return paths_.pages; }
  store::StoredRows _existing() const override;
  store::PageDigests _page_digests() const override;
  void _set_page_digests(store::PageDigests digests) override;
  void _set_page_digest(const std::string& page_id, Map digest) override;
  AgentPreparation _agent_prepare() override;
  GatheredContext _gather_context(const PagePlan& plan) override;
  std::vector<Diagram> _build_diagrams(const PagePlan& plan) override;
  FinalizedPage _finalize(const PagePlan& plan, const std::string& authored,
                          const std::vector<Diagram>& diagrams, const FinalizeOptions& options) override;
  std::string _steering_text(const std::string& page_id) override;
  Map _section_cache(const std::string& body, const std::vector<Map>& citations) override;
  std::map<std::string, std::string> _hashes_with_steering(const std::vector<std::string>& files) override;
  ChunkScope _chunk_scope(const std::string& page_id) override;
  std::vector<Map> _chunk_and_embed(const std::string& searchable, const std::vector<Map>& citations,
                                    const StringSet& elsewhere) override;
  void _store_chunks(std::int64_t page_key, const std::string& page_id, const std::vector<Map>& chunks,
                     const StringSet& shared_before) override;
  store::PageDigests _load_digests() override;
  void _reconcile_digests(const Plans& plans, const store::StoredRows& existing,
                          const ReconcileOptions& options) override;
  void _persist_digests() override;
  void _mark_synthesis_stale(const std::map<std::string, std::vector<std::string>>& dependents) override;
  void _write_index_and_manifest(const WikiBuildResult& result) override;
  std::int64_t _stored_files_covered() override;
  Map _prior_lint_summary() override;
  std::string _git_commit() override;
  void _reread_existing() override;
  std::vector<std::string> citation_warnings(const std::string& markdown,
                                             const std::string& authored) override;
  void _acquire_write_lock(const AcquireOptions& options) override;
  void _release_write_lock() override;
  const WikiConfig& wiki_config() const override { return config_; }

 private:
  class SourceRecords;
  friend class Adoption;
  friend class Inspection;
  friend class Repair;

  struct DueLists {
    ListContent content;
    std::uint64_t commit = 0;  // which asks for them
  };

  // The plan as last prepared; prepares it the first time.
  std::shared_ptr<const PlannedWiki> planned();
  // The wiki with `page_id` in its plan, or null.
  std::shared_ptr<const PlannedWiki> planned_with(const std::string& page_id);
  StandingPage standing_page(const std::string& page_id);
  std::optional<Answer> commit_as_one(const _PageDraft& draft);
  std::string keep_replaced(const StandingPage& page, const _PageDraft& draft) const;
  void with_write_lock(const std::function<void()>& work, bool wait = true);
  bool has_news(const utils::FileStamp& manifest) const;
  bool lists_are_long() const;
  ListContent list_content(const WikiBuildResult& result);
  // Writes index and manifest from the rows, with the entries of `known` (the manifest in place, where it is
  // not given) that wait for theirs.
  void write_lists(const WikiBuildResult& result, const ManifestContent* known = nullptr);
  // Writes the lists that the last commit asked for.
  Background::Outcome follow_with_lists();
  void tidy_store();
  // Gives `due` new content when another process placed its lists first.
  Background::Outcome place_lists(DueLists& due);
  bool is_checked_out() const;
  // Stores the digests, and with them the stale marks of the pages that build on one that changed and of
  // which `marks_others` holds.
  // `spared` are not marked.
  void persist_digests(const Plans& plans, const std::function<bool(const std::string&)>& marks_others,
                       const StringSet& spared);
  std::string steering_of(const PagePlan* plan) const;
  Brackets brackets_of(const std::string& authored, const PlannedWiki& wiki, const PagePlan* plan) const;

  const WikiPaths paths_;
  const WikiConfig config_;
  const source::Checkout checkout_;
  mutable source::CheckoutReader checkout_now_;
  const std::unique_ptr<store::WikiStore> store_;
  const std::unique_ptr<search::Embedder> embedder_;
  const std::unique_ptr<SourceRecords> source_records_;
  const std::unique_ptr<source::Indexer> indexer_;
  store::WriteLock lock_;
  TitleIndex titles_;
  VectorCache vectors_;
  ReadTexts texts_;
  const KeptTexts drafts_;
  const KeptTexts replaced_;

  std::mutex prepare_mutex_;  // one thread at a time derives the plan
  mutable std::mutex state_mutex_;
  std::shared_ptr<const PlannedWiki> planned_;  // guarded by state_mutex_, as are the three below
  struct {
    utils::FileStamp manifest;
    std::map<std::filesystem::path, utils::FileStamp> awaited;
  } seen_;  // what adopt_described() looked at last
  store::StoredRows existing_;
  store::PageDigests digests_;

  // Used by the holder of the write lock alone.
  std::optional<utils::TaskShield> shield_;  // a commit is not cancelled
  store::PageDigests reconciled_;
  Plans reconciled_plans_;
  store::StoredRows covered_rows_;
  std::map<std::string, int> covered_files_;  // file to the number of pages that rest on it
  std::optional<Map> prior_lint_;
  std::uint64_t commits_ = 0;  // that asked for lists, the one at work among them

  std::atomic<int> saves_at_work_ = 0;
  WikiLists lists_;
  const std::uint64_t lists_follow_above_;
  std::optional<DueLists> due_;            // guarded by state_mutex_, as is the next
  std::uint64_t last_committed_ = 0;       // of the commits that ask for lists
  std::unique_ptr<Background> following_;  // ends first: it uses all others
};

}  // namespace ossilar::workers::wiki
