// One open wiki of one working tree, shared by all commands, sessions, saves and checks of a process. It
// joins source index, plan, store and search, and holds what they share. A save is made by a WikiGenerator of
// its own over it (orchestrator.h, saving.h), so nothing of one save is here. open_wiki.h makes it;
// WikiProvider keeps a server's and opens another when branch or configuration change: both are fixed here.
//
// A call that fails leaves plan and titles as they were.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ossilar/search/embedder.h"
#include "ossilar/source/checkout.h"
#include "ossilar/source/indexer.h"
#include "ossilar/store/file_lock.h"
#include "ossilar/store/repository.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/citing/follower.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/grounding/grounding.h"
#include "ossilar/workers/wiki/host/contended_pages.h"
#include "ossilar/workers/wiki/host/covered_files.h"
#include "ossilar/workers/wiki/host/digest_reconciler.h"
#include "ossilar/workers/wiki/host/plan_maker.h"
#include "ossilar/workers/wiki/host/planned_wiki.h"
#include "ossilar/workers/wiki/host/save_at_work.h"
#include "ossilar/workers/wiki/host/shared_files.h"
#include "ossilar/workers/wiki/host/title_index.h"
#include "ossilar/workers/wiki/host/wiki_paths.h"
#include "ossilar/workers/wiki/pages/kept_texts.h"
#include "ossilar/workers/wiki/pages/list_files.h"
#include "ossilar/workers/wiki/pages/page_version.h"
#include "ossilar/workers/wiki/passages/page_chunks.h"
#include "ossilar/workers/wiki/passages/vector_cache.h"
#include "ossilar/workers/wiki/plans.h"

namespace ossilar::workers::wiki {

// Thread-safety: every member may be called from any thread, except release_write_lock(),
// digest_reconciler(), covered_files() and the writing members of lists(), which belong to the holder of the
// write lock. Lifetime: what the members give by reference lives as long as the wiki.
class Wiki {
 public:
  struct Services {
    WikiPaths paths;
    WikiConfig config;
    source::Checkout checkout;
    std::unique_ptr<store::WikiStore> store;
    std::unique_ptr<search::Embedder> embedder;
    std::string writer;  // names this program to those who wait for its lock: "ossilar save"
    // Of a store that several machines share, its own; null for a store of this machine alone.
    std::unique_ptr<store::WriteLock> shared_lock = {};
    std::unique_ptr<store::PageTurns> shared_turns = {};
    // For a process that stays: it is notified of changed sources instead of scanning them for each draft
    // (see Indexer::Options::watch). Off for a command, which scans them only once or twice.
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
  // The commit that is checked out now, "" outside git. Unlike the branch it changes while the wiki is open.
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
  // Notes manifests as written from our rows alone, so that none of their lines is taken for a page that came
  // by version control. WikiLists gives them; its caller notes them once they are written.
  void note_lists(const WikiLists::Own& own) { store_->note_own_lists(branch(), own); }

  // ---- The plan.

  // Brings the source index and the plan up to date with the sources and the stored pages, and gives both:
  // the same object as long as neither changed. Reads the sources that changed, so it may take long the first
  // time; callers take turns. Throws utils::Error for a tree that cannot be listed, StorageError for a store
  // that cannot be read.
  std::shared_ptr<const PlannedWiki> prepare(const utils::Progress& progress = {});
  // The plan as last prepared, without a look at sources and store; prepares it the first time.
  std::shared_ptr<const PlannedWiki> planned();
  // The plan with `page_id` in it, or null. Prepares again for a page that the last plan does not have.
  std::shared_ptr<const PlannedWiki> planned_with(const std::string& page_id);
  // The plan as it would be with `rows` in the place of the stored ones, by the sources as last prepared. For
  // pages that are about to be adopted: by their rows they may keep ids that the tree alone does not give.
  std::shared_ptr<const PlannedWiki> planned_with_rows(const store::StoredRows& rows);
  std::vector<std::string> skipped_sources() const { return indexer_->skipped(); }
  // What the configuration says about writing the page, for all pages first; null for a page without a plan.
  std::string steering(const PagePlan* plan) const;
  Grounding gather(const PlannedWiki& planned, const PagePlan& plan) const;
  // What a draft that begins now is made from; the sources are brought up to date first.
  DraftBasis draft_basis() { return draft_basis(bring_in_files()); }
  DraftBasis draft_basis(store::StoredRows rows);
  // The titles of these rows and plans.
  TitleIndex titles(const store::StoredRows& rows, const Plans& plans);

  // Follows citations to the sources of `planned`, which it keeps. For one thread.
  std::unique_ptr<CitationFollower> follower(const PlannedWiki& planned) const;
  // The same to other sources, which it keeps: `read` gives the texts of the files of `index`.
  std::unique_ptr<CitationFollower> follower(const source::SourceIndex& index, ReadText read) const;

  ContendedPages& contended_pages() { return contended_pages_; }
  // The page files over a store that several machines share; null over a store of this machine alone.
  SharedFiles* shared_files() { return shared_files_.get(); }
  // Brings in what other machines wrote, unless somebody writes on this machine, who does so, and gives the
  // rows as stored now. A file that cannot be brought in is logged: what is here can be read.
  store::StoredRows bring_in_files();

  // The rows of this branch as stored now.
  store::StoredRows stored_pages() { return store_->get_wiki_pages(branch()); }

  // ---- The write lock, and what belongs to its holder.

  // Takes the lock, and over a shared store brings in what other machines wrote; with `wait` it waits for
  // lock_timeout_s at most, else it gives up at once. Throws _WikiBusy when another holds it, utils::IoError
  // when the file cannot be locked; utils::Cancelled passes.
  void acquire_write_lock(bool wait, const utils::Task& task);
  void release_write_lock() { lock().release(); }
  // Runs `work` under the lock and releases it, whatever leaves `work`. When the release fails too, its
  // failure is the one that is thrown. `task` may cancel the wait, and no longer once the lock is had.
  void with_write_lock(bool wait, const std::function<void()>& work);
  void with_write_lock(bool wait, utils::Task& task, const std::function<void()>& work);
  DigestReconciler& digest_reconciler() { return digest_reconciler_; }
  CoveredFiles& covered_files() { return covered_files_; }

 private:
  class SourceRecords;

  std::string other_branch();
  void require_own_branch();

  std::shared_ptr<const PlannedWiki> prepare_by(const store::StoredRows& rows,
                                                const utils::Progress& progress);
  store::WriteLock& lock() { return shared_lock_ ? *shared_lock_ : machines_lock_; }

  // The order matters: members are made from those above them, and destroyed before them. The indexer keeps a
  // pointer to source_records_, which writes to the store.
  const WikiPaths paths_;
  const WikiConfig config_;
  const source::Checkout checkout_;
  source::CheckoutReader checkout_now_;
  const std::unique_ptr<store::WikiStore> store_;
  const std::unique_ptr<search::Embedder> embedder_;
  const std::unique_ptr<SourceRecords> source_records_;
  const std::unique_ptr<source::Indexer> indexer_;
  store::FileLock machines_lock_;
  const std::unique_ptr<store::WriteLock> shared_lock_;  // both; null over a store of this machine alone
  ContendedPages contended_pages_;
  VectorCache vectors_;
  ReadTexts texts_;
  const KeptTexts drafts_;    // the newest only
  const KeptTexts replaced_;  // all of them
  WikiLists lists_;
  const std::unique_ptr<SharedFiles> shared_files_;
  DigestReconciler digest_reconciler_;  // the lock holder's, as is the next
  CoveredFiles covered_files_;

  std::mutex prepare_mutex_;  // one thread at a time makes the plan; taken before mutex_
  PlanMaker plan_maker_;      // guarded by prepare_mutex_
  mutable std::mutex mutex_;
  std::shared_ptr<const PlannedWiki> planned_;  // guarded by mutex_, as is the next
  TitleIndex titles_;
};

}  // namespace ossilar::workers::wiki
