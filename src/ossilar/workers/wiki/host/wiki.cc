// Two mutexes guard the plan. prepare_mutex_ is held while the sources are scanned and the plan is made,
// which takes long in a large repository; mutex_ only while a pointer or a snapshot is copied. One mutex for
// both would make everybody who wants the last plan wait for the scan.
//
// What is handed out never changes: a new plan is another object, and those who work with the former one keep
// it. So a draft may go on for as long as it likes beside any number of preparations.
#include "ossilar/workers/wiki/host/wiki.h"

#include "ossilar/store/joint_lock.h"
#include "ossilar/utils/logging.h"
#include "ossilar/workers/wiki/host/past_texts.h"

namespace ossilar::workers::wiki {
namespace {

const utils::Logger wiki_logger("ossilar.workers.wiki");

// Refused texts that are kept. An author needs the last ones; as a text has 1 MiB at most (kLargestContent),
// this bounds the folder to 50 MiB.
constexpr std::size_t kMostDrafts = 50;

// The wiki itself must not be planned as a source or cited, nor may each save change the source index.
std::vector<std::string> excluded_from_index(const WikiConfig& config) {
  return {config.dir, ".ossilar", "ossilar.toml"};
}

std::unique_ptr<store::WriteLock> both(store::WriteLock& machines, std::unique_ptr<store::WriteLock> shared) {
  if (!shared) return nullptr;
  return std::make_unique<store::JointLock>(machines, std::move(shared));
}

}  // namespace

// Keeps the source index in the store. Joined here, as the source room does not know the store.
class Wiki::SourceRecords final : public source::RecordStore {
 public:
  explicit SourceRecords(store::WikiStore& store) : store_(store) {}
  void load(const Take& take) override { store_.source_records(take); }
  void update(const std::map<std::string, std::optional<std::string>>& changes) override {
    store_.update_source_records(changes);
  }

 private:
  store::WikiStore& store_;
};

Wiki::Wiki(Services services)
    : paths_(std::move(services.paths)),
      config_(std::move(services.config)),
      checkout_(std::move(services.checkout)),
      checkout_now_(paths_.root),
      store_(std::move(services.store)),
      embedder_(std::move(services.embedder)),
      source_records_(std::make_unique<SourceRecords>(*store_)),
      indexer_(
          std::make_unique<source::Indexer>(source::Indexer::Options{.root = paths_.root,
                                                                     .excluded = excluded_from_index(config_),
                                                                     .records = source_records_.get(),
                                                                     .watch = services.stays})),
      machines_lock_({.path = paths_.lock(),
                      .timeout = config_.lock_timeout,
                      .holder = std::move(services.writer),
                      .guards_folder = true}),  // a `write.lock` that somebody removes lets nobody in
      shared_lock_(both(machines_lock_, std::move(services.shared_lock))),
      contended_pages_(std::move(services.shared_turns)),
      drafts_(paths_.drafts(), kMostDrafts),
      replaced_(paths_.replaced()),  // without a limit: it may be the only copy of a hand's text
      lists_(paths_.wiki, paths_.pages),
      shared_files_(shared_lock_ ? std::make_unique<SharedFiles>(SharedFiles::Wiki{.paths = paths_,
                                                                                   .branch = checkout_.branch,
                                                                                   .store = *store_,
                                                                                   .replaced = replaced_,
                                                                                   .lists = lists_})
                                 : nullptr),
      plan_maker_(config_, checkout_.name) {
  // The result is dropped: the call fills the store's snapshot, so that the first draft reads only what
  // changed since the opening. A command that needs no rows, or few of them, is not made to wait for all.
  if (services.stays) store_->get_wiki_pages(branch());
}

Wiki::~Wiki() = default;

// ---- The plan.

std::shared_ptr<const PlannedWiki> Wiki::prepare(const utils::Progress& progress) {
  return prepare_by(bring_in_files(), progress);
}

std::shared_ptr<const PlannedWiki> Wiki::prepare_by(const store::StoredRows& rows,
                                                    const utils::Progress& progress) {
  const std::lock_guard one_at_a_time(prepare_mutex_);
  auto wiki = plan_maker_.plan(indexer_->refresh(progress), rows);
  const std::lock_guard lock(mutex_);
  planned_ = wiki;
  return wiki;
}

std::shared_ptr<const PlannedWiki> Wiki::planned() {
  {
    const std::lock_guard lock(mutex_);
    if (planned_) return planned_;
  }
  return prepare();
}

// A page that the last plan lacks may be one of a source folder that was added since.
std::shared_ptr<const PlannedWiki> Wiki::planned_with(const std::string& page_id) {
  auto wiki = planned();
  if (wiki->plans.find(page_id) == nullptr) wiki = prepare();
  return wiki->plans.find(page_id) == nullptr ? nullptr : wiki;
}

std::shared_ptr<const PlannedWiki> Wiki::planned_with_rows(const store::StoredRows& rows) {
  const auto last = planned();
  const std::lock_guard one_at_a_time(prepare_mutex_);
  PlanMaker maker = plan_maker_;  // a copy, as the next preparation goes by the stored rows again
  return maker.plan(last->index, rows);
}

std::string Wiki::steering(const PagePlan* plan) const {
  std::string steering = config_.steering;
  if (plan != nullptr && !plan->steering.empty()) {
    if (!steering.empty()) steering += "\n\n";
    steering += plan->steering;
  }
  return steering;
}

Grounding Wiki::gather(const PlannedWiki& planned, const PagePlan& plan) const {
  const auto read = [this](const std::string& path) { return source::read_source(paths_.root, path); };
  return gather_grounding(plan, planned.plans, *planned.index, steering(&plan), read);
}

DraftBasis Wiki::draft_basis(store::StoredRows rows) {
  auto planned = prepare_by(rows, {});
  auto titles = this->titles(rows, planned->plans);
  return {.planned = std::move(planned), .rows = std::move(rows), .titles = std::move(titles)};
}

std::unique_ptr<CitationFollower> Wiki::follower(const PlannedWiki& planned) const {
  return follower(*planned.index,
                  [this](const std::string& path) { return source::read_source(paths_.root, path); });
}

std::unique_ptr<CitationFollower> Wiki::follower(const source::SourceIndex& index, ReadText read) const {
  const auto past = std::make_shared<PastTexts>(*store_, paths_.root);
  return std::make_unique<CitationFollower>(
      CitedSources{.index = index,
                   .read = std::move(read),
                   .past = [past](const FileVersion& version) { return past->text(version); },
                   .files_at = [past](const std::string& commit) { return past->files_at(commit); }});
}

// Each caller's copy is brought in line with its own rows, outside the mutex, as other callers may have other
// rows. What is kept is only a starting point close to the next caller's rows, so it does not matter which of
// two concurrent callers stores last.
TitleIndex Wiki::titles(const store::StoredRows& rows, const Plans& plans) {
  TitleIndex titles;
  {
    const std::lock_guard lock(mutex_);
    titles = titles_;
  }
  titles.update(rows, plans);
  const std::lock_guard lock(mutex_);
  titles_ = titles;
  return titles;
}

// ---- The write lock.

// The branch that is checked out if it is not this wiki's, else "". Asked under the lock: whoever began
// before the switch would write the rows of the one branch, and its text among the files of the other.
std::string Wiki::other_branch() {
  const std::string now = checkout_.in_git ? checkout_now_.read().branch : branch();
  return now == branch() ? "" : now;
}

void Wiki::require_own_branch() {
  const std::string other = other_branch();
  if (other.empty()) return;
  throw _WikiBusy("the checkout was switched from the branch " + branch() + " to " + other +
                  " meanwhile; try again");
}

// Files that cannot be brought in fail the write: it would be of another page than the store's.
void Wiki::acquire_write_lock(bool wait, const utils::Task& task) {
  try {
    lock().acquire(wait, task);
  } catch (const store::LockBusy& busy) {
    throw _WikiBusy(busy.what());
  }
  try {
    require_own_branch();
    if (shared_files_) shared_files_->bring_in();
  } catch (...) {
    release_write_lock();
    throw;
  }
}

store::StoredRows Wiki::bring_in_files() {
  if (!shared_files_) return stored_pages();
  try {
    machines_lock_.acquire(shared_files_->has_failed());  // a text that was not stored must not be read
  } catch (const store::LockBusy&) {
    return stored_pages();
  } catch (const utils::Error& error) {
    wiki_logger.warning("cannot bring in what other machines wrote", error);
    return stored_pages();
  }
  std::optional<store::StoredRows> rows;
  try {
    if (other_branch().empty()) rows = shared_files_->bring_in();
  } catch (const std::exception& error) {
    wiki_logger.warning("cannot bring in what other machines wrote", error);
  }
  machines_lock_.release();
  return rows ? *std::move(rows) : stored_pages();
}

void Wiki::with_write_lock(bool wait, const std::function<void()>& work) {
  utils::Task task;
  with_write_lock(wait, task, work);
}

// Without a guard object: a destructor could not let the release's failure reach the caller. `catch (...)`,
// as utils::Cancelled is no std::exception. The task is asked inside, as a cancellation can come just when
// the lock does.
void Wiki::with_write_lock(bool wait, utils::Task& task, const std::function<void()>& work) {
  acquire_write_lock(wait, task);
  try {
    task.check();
    task.raise_shield();
    work();
  } catch (...) {
    task.drop_shield();
    release_write_lock();
    throw;
  }
  task.drop_shield();
  release_write_lock();
}

}  // namespace ossilar::workers::wiki
