// The host of one save: gives the pipeline of agent_save.h what it asks for, from a wiki that many share
// (host/wiki.h). Defined in host/orchestrator.cc.
//
// host/saving.cc makes one for each save, check/adoption.cc to draft again the pages that it adopts. What
// the save reads and settles is in two objects of its own (host/save_at_work.h), so no other save can replace
// it. A draft reads one snapshot; what the commit decides by is read again under the lock.
//
// Threads: a generator belongs to one thread; any number of them work on one wiki at a time. Failures: see
// agent_save.h. Beside those, utils::Cancelled leaves a save whose task was cancelled before it had the lock;
// nothing is written then.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/agent_save.h"
#include "ossilar/workers/wiki/host/page_change.h"

namespace ossilar::workers::wiki {

class Wiki;
struct DraftBasis;
struct DraftAtWork;
struct CommitAtWork;
struct PageRecord;
struct Brackets;
struct Vouching;
class Fingerprinter;

// What a save is given beside the four arguments of save_agent_page().
struct SaveTerms {
  // Save only onto this version of the page (see pages/page_version.h); none: onto any.
  std::optional<std::string> if_version = {};
  // Where the section goes (see pages/section_place.h); none: it replaces the one of its name.
  std::optional<std::string> place = {};
  // Draft from this; null: from the wiki as it is when each draft begins.
  const DraftBasis* basis = nullptr;
  // The text differs in the lines of moved citations alone, and nobody has read it (see
  // host/settled_claims.h): the labels that are new.
  std::optional<std::set<std::string>> follows = {};
  // The text is the page's own, and its author says that the words of this section, or with "" of the whole
  // page, still hold.
  std::optional<std::string> confirms = {};
  std::string at = {};  // when it was confirmed, ISO 8601
  // The text is an earlier version of the page, and this its record: its sentences were written about the
  // sources of then. Null for any other text. Must outlive the save.
  const PageRecord* restores = nullptr;
  PageChange change = {};
};

class WikiGenerator final : public AgentSaveMixin {
 public:
  // `wiki`, `task` and the basis in `terms` must outlive it. `task` may watch and cancel the save.
  WikiGenerator(Wiki& wiki, utils::Task& task, SaveTerms terms = {});
  ~WikiGenerator() override;

  // The first half of a save alone, for a dry run or an adoption: no lock, no write.
  std::variant<_PageDraft, Answer> draft(const std::string& page_id, const std::string& content,
                                         const std::optional<std::string>& section = {},
                                         const std::optional<std::string>& title = {});

  // The version that the last draft gives the page; "" before the first one, and after one that was refused.
  const std::string& drafted_version() const;

 protected:
  std::variant<_PageDraft, Answer> _draft_agent_page(const std::string& page_id, std::string content,
                                                     const std::optional<std::string>& section,
                                                     const std::optional<std::string>& title) override;
  std::optional<Answer> _commit_agent_page(const _PageDraft& draft) override;
  void _publish_agent_save() override;
  Answer _with_section(const PagePlan& plan, const std::string& heading, const std::string& text) override;

  // In the order in which agent_save.h declares them, which says when each is called.
  store::Repository& repository() override;
  const std::string& branch() const override;
  const std::filesystem::path& pages_dir() const override;
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
  const WikiConfig& wiki_config() const override;

 private:
  Vouching vouching() const;
  std::map<std::string, std::string> hashes_of(const std::vector<std::string>& files) const;
  std::vector<Map> confirmations() const;
  void drop_empty(Brackets& brackets, Fingerprinter& prints);
  std::optional<Answer> refuse_other_version(const std::string& content,
                                             const std::optional<std::string>& section) const;
  bool is_section_untouched(const std::string& section) const;
  Map versions_with_this() const;
  std::vector<std::string> loss_warnings_of(const std::string& authored) const;
  std::string hand_edit_warning() const;
  store::WikiStore& store() const;
  void put_on_disk();
  void commit_rows();
  void keep_what_was_written();
  void note_in_history();

  Wiki& wiki_;
  utils::Task& task_;
  const SaveTerms terms_;
  const std::unique_ptr<DraftAtWork> draft_;
  const std::unique_ptr<CommitAtWork> commit_;
  bool has_drafted_ = false;
  std::shared_ptr<void> turn_;  // at a page that other machines contend for
};

}  // namespace ossilar::workers::wiki
