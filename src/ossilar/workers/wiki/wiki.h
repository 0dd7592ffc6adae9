// One open wiki of one working tree, for all who ask: commands, sessions, saves and checks. It joins source
// index, plan, store and search, and holds what they share. A save is made by a WikiGenerator of its own over
// it (orchestrator.h, saving.h), so nothing of one save is here.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "ossilar/search/embedder.h"
#include "ossilar/source/indexer.h"
#include "ossilar/store/repository.h"
#include "ossilar/store/write_lock.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/covered_files.h"
#include "ossilar/workers/wiki/digest_reconciler.h"
#include "ossilar/workers/wiki/grounding.h"
#include "ossilar/workers/wiki/kept_texts.h"
#include "ossilar/workers/wiki/list_files.h"
#include "ossilar/workers/wiki/module_graph.h"
#include "ossilar/workers/wiki/page_chunks.h"
#include "ossilar/workers/wiki/page_state.h"
#include "ossilar/workers/wiki/page_version.h"
#include "ossilar/workers/wiki/reembedding.h"
#include "ossilar/workers/wiki/title_index.h"
#include "ossilar/workers/wiki/vector_cache.h"
#include "ossilar/workers/wiki/wiki_search.h"

namespace ossilar::workers::wiki {

// Where the parts of a wiki lie. All paths are absolute and free of symbolic links.
struct WikiPaths {
  std::filesystem::path root;   // of the repository
  std::filesystem::path wiki;   // the wiki's root
  std::filesystem::path pages;  // the directory of the page files
  std::filesystem::path state;  // `.ossilar`
  std::filesystem::path page(const std::string& page_id) const { return pages / (page_id + ".md"); }
  std::filesystem::path database() const { return state / "index.db"; }
  std::filesystem::path lock() const { return state / "write.lock"; }
  // The file whose bytes savers of one page take turns by.
  std::filesystem::path turns() const { return state / "turns.lock"; }
  // The texts of refused saves.
  std::filesystem::path drafts() const { return state / "drafts"; }
  // The texts that a save or a repair took the place of and that no author has read.
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

struct WikiStatus {
  std::string branch;
  std::string commit;
  std::vector<PageState> pages;
  std::size_t indexed_files = 0;
  std::optional<store::WikiStateFields> last_write;
};

// Thread-safety: every member may be called from any thread, but for those that say that they belong to the
// holder of the write lock. Lifetime: the indexer's record store lives in `store`.
class Wiki {
 public:
  struct Services {
    WikiPaths paths;
    WikiConfig config;
    source::Checkout checkout;
    std::unique_ptr<store::WikiStore> store;
    std::unique_ptr<search::Embedder> embedder;
    std::string writer;  // names this program to those who wait for its lock: "ossilar save"
    // For a process that stays: it hears of changes of the sources instead of looking at each (see
    // Indexer::Options::watch).
    bool stays = false;
  };
  explicit Wiki(Services services);
  ~Wiki();
  Wiki(const Wiki&) = delete;
  Wiki& operator=(const Wiki&) = delete;

  // ---- What it is made of.

  const WikiPaths& paths() const { return paths_; }
  const WikiConfig& config() const { return config_; }
  const std::string& branch() const { return checkout_.branch; }
  // The commit that is checked out now; "" outside git.
  std::string commit() { return checkout_.in_git ? checkout_now_.read().commit : ""; }
  store::WikiStore& store() { return *store_; }
  search::Embedder& embedder() { return *embedder_; }
  ChunkServices chunk_services(store::WikiStore& store, utils::Task& task) {
    return {.store = store, .embedder = *embedder_, .vectors = vectors_, .task = task};
  }
  ReadTexts& read_texts() { return texts_; }
  const KeptTexts& kept_drafts() const { return drafts_; }
  const KeptTexts& replaced_texts() const { return replaced_; }
  WikiLists& lists() { return lists_; }
  // Notes manifests as ones that did not come from elsewhere, whatever they say.
  void note_lists(const WikiLists::Own& own) { store_->note_own_lists(branch(), own); }

  // ---- The plan.

  // Brings the source index and the plan up to date.
  std::shared_ptr<const PlannedWiki> prepare(const source::Progress& progress = {});
  // The plan as last prepared; prepares it the first time.
  std::shared_ptr<const PlannedWiki> planned();
  // The plan with `page_id` in it, or null.
  std::shared_ptr<const PlannedWiki> planned_with(const std::string& page_id);
  std::vector<std::string> skipped_sources() const { return indexer_->skipped(); }
  // What the configuration says about writing the page.
  std::string steering(const PagePlan* plan) const;
  Grounding gather(const PlannedWiki& planned, const PagePlan& plan) const;
  // The titles of these rows and plans.
  TitleIndex titles(const store::StoredRows& rows, const Plans& plans);

  // ---- What commands and sessions ask.

  std::vector<PageState> page_states(Look look = Look::now);
  WikiStatus status(Look look = Look::now);
  // The grounding of a planned page, or the answer that says that there is none.
  std::variant<PageContext, Answer> page_context(const std::string& page_id);
  // A stored page, or the answer that says why there is none.
  std::variant<StoredPage, Answer> read_page(const std::string& page_id);
  // Whether the page is planned or stored.
  bool has_page(const std::string& page_id);
  // The rows of this branch as stored now.
  store::StoredRows stored_pages() { return store_->get_wiki_pages(branch()); }
  std::int64_t min_citations() const { return config_.min_citations_per_page; }
  // Whether passages are embedded with another model than the one configured; reembed() brings them up to it.
  std::optional<EmbeddingChange> embedding_change() { return wiki::embedding_change(*store_, *embedder_); }
  void reembed(const source::Progress& progress, utils::Task& task) {
    wiki::reembed(*store_, *embedder_, progress, task);
  }
  // The passages of the stored pages that answer the query best, or an answer that refuses it.
  std::variant<SearchResult, Answer> search(const SearchRequest& request, const utils::Task& task) {
    return search_wiki(request, branch(), *store_, *embedder_, task);
  }

  // ---- The write lock, and what belongs to its holder.

  // Takes the lock, with `wait` as long as the configuration says. Throws _WikiBusy; utils::Cancelled passes.
  void acquire_write_lock(bool wait, const utils::Task& task);
  void release_write_lock() { lock_.release(); }
  void with_write_lock(bool wait, const std::function<void()>& work);
  DigestReconciler& digest_reconciler() { return digest_reconciler_; }
  CoveredFiles& covered_files() { return covered_files_; }

 private:
  class SourceRecords;

  const WikiPaths paths_;
  const WikiConfig config_;
  const source::Checkout checkout_;
  source::CheckoutReader checkout_now_;
  const std::unique_ptr<store::WikiStore> store_;
  const std::unique_ptr<search::Embedder> embedder_;
  const std::unique_ptr<SourceRecords> source_records_;
  const std::unique_ptr<source::Indexer> indexer_;
  store::WriteLock lock_;
  VectorCache vectors_;
  ReadTexts texts_;
  const KeptTexts drafts_;
  const KeptTexts replaced_;
  WikiLists lists_;
  DigestReconciler digest_reconciler_;  // the lock holder's, as is the next
  CoveredFiles covered_files_;

  std::mutex prepare_mutex_;  // one thread at a time derives the plan
  mutable std::mutex mutex_;
  std::shared_ptr<const PlannedWiki> planned_;  // guarded by mutex_, as is the next
  TitleIndex titles_;
};

// What the brackets of an authored text mean to the page of `plan` (null: of no plan). Its own title may be
// one that no row has yet.
Brackets brackets_of(const std::string& authored, const PlannedWiki& planned, const TitleIndex& titles,
                     const PagePlan* plan);

}  // namespace ossilar::workers::wiki
