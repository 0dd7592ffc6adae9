#include "ossilar/workers/wiki/wiki.h"

#include "ossilar/utils/files.h"
#include "ossilar/utils/fold.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/planner.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::size_t kMostDrafts = 50;

std::vector<std::string> excluded_from_index(const WikiConfig& config) {
  return {config.dir, ".ossilar", "ossilar.toml"};
}

}  // namespace

// Keeps the source index in the store.
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
      lock_({.path = paths_.lock(),
             .timeout = config_.lock_timeout,
             .holder = std::move(services.writer),
             .guards_folder = true}),
      drafts_(paths_.drafts(), kMostDrafts),
      replaced_(paths_.replaced()),
      lists_(paths_.wiki, paths_.pages) {
  store_->get_wiki_pages(branch());  // read once, here, so that the first draft reads what changed since
}

Wiki::~Wiki() = default;

// ---- The plan.

std::shared_ptr<const PlannedWiki> Wiki::prepare(const source::Progress& progress) {
  const std::lock_guard one_at_a_time(prepare_mutex_);
  auto index = indexer_->refresh(progress);
  std::shared_ptr<const PlannedWiki> wiki;
  {
    const std::lock_guard lock(mutex_);
    wiki = planned_;
  }
  if (wiki && wiki->index == index) return wiki;
  Plans plans(amend_plan(derive_plan(*index, checkout_.name), config_, *index));
  wiki = std::make_shared<const PlannedWiki>(std::move(index), std::move(plans));
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

std::shared_ptr<const PlannedWiki> Wiki::planned_with(const std::string& page_id) {
  auto wiki = planned();
  if (wiki->plans.find(page_id) == nullptr) wiki = prepare();
  return wiki->plans.find(page_id) == nullptr ? nullptr : wiki;
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

// Each caller's own copy is brought in line with its own rows; what is kept only spares the next one work.
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

// ---- What commands and sessions ask.

Map author_brief(const PageContext& context) {
  const PageType& type = plan_type(context.plan);
  return {{"page_id", context.plan.page_id},
          {"title", context.plan.title},
          {"type", type.name},
          {"description", context.plan.description},
          {"purpose", type.purpose},
          {"required_sections", type.required_sections},
          {"words", Map{{"least", type.least_words}, {"most", type.most_words}}},
          {"steering", context.steering}};
}

std::vector<PageState> Wiki::page_states(Look look) {
  const auto wiki = look == Look::now ? prepare() : planned();
  return wiki::page_states(wiki->plans, stored_pages(), store_->stale_marks(branch()), *wiki->index,
                           config_.steering);
}

WikiStatus Wiki::status(Look look) {
  WikiStatus status;
  status.pages = page_states(look);
  status.branch = branch();
  status.commit = commit();
  status.indexed_files = planned()->index->files().size();
  status.last_write = store_->wiki_state(branch());
  return status;
}

// As a draft finds the page: with the title that a save without one would keep, and the files and symbols of
// its grounding.
std::variant<PageContext, Answer> Wiki::page_context(const std::string& page_id) {
  const auto wiki = prepare();
  Plans plans = wiki->plans;
  const auto plan = plans.own(page_id);
  if (!plan) return not_planned(page_id, plans);
  retitle(*plan, std::nullopt, plans, stored_pages());
  Grounding grounding = gather(*wiki, *plan);
  backfill_source_files(*plan, grounding.files);
  plan->symbols = grounding.symbols;
  return PageContext{*plan, std::move(grounding), steering(plan.get())};
}

bool Wiki::has_page(const std::string& page_id) {
  return planned_with(page_id) != nullptr || stored_pages().find(page_id) != nullptr;
}

std::variant<StoredPage, Answer> Wiki::read_page(const std::string& page_id) {
  if (!has_page(page_id)) return not_planned(page_id, planned()->plans);
  const auto file = paths_.page(page_id);
  if (!utils::is_regular_file(file)) {
    return Answer{{"error", "page '" + page_id + "' is not written yet; its context says what it needs"},
                  {"page_id", page_id}};
  }
  std::string text = utils::read_text_file_within(paths_.pages, file);
  texts_.put(text);
  std::string version = version_of(text);
  return StoredPage{.text = std::move(text), .version = std::move(version)};
}

// ---- The write lock.

void Wiki::acquire_write_lock(bool wait, const utils::Task& task) {
  try {
    lock_.acquire(wait, task);
  } catch (const store::LockBusy& busy) {
    throw _WikiBusy(busy.what());
  }
}

// The release is named on both ways out, because its failure must reach the caller.
void Wiki::with_write_lock(bool wait, const std::function<void()>& work) {
  acquire_write_lock(wait, utils::Task());
  try {
    work();
  } catch (...) {
    release_write_lock();
    throw;
  }
  release_write_lock();
}

Brackets brackets_of(const std::string& authored, const PlannedWiki& planned, const TitleIndex& titles,
                     const PagePlan* plan) {
  const std::string own_title = plan != nullptr ? utils::fold_label(plan->title) : "";
  return read_brackets(authored, *planned.index, [&](std::string_view label) -> std::optional<std::string> {
    if (plan != nullptr && utils::fold_label(label) == own_title) return plan->page_id;
    return titles.find(label);
  });
}

}  // namespace ossilar::workers::wiki
