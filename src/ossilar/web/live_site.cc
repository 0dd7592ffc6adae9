#include "ossilar/web/live_site.h"

#include <utility>

#include "ossilar/utils/logging.h"

namespace ossilar::web {
namespace {

const utils::Logger live_logger("ossilar.web.live_site");

}  // namespace

LiveSite::LiveSite(workers::wiki::WikiProvider& provider, std::chrono::milliseconds every,
                   std::function<void()> changed, std::function<void()> tick)
    : provider_(provider), every_(every), changed_(std::move(changed)), tick_(std::move(tick)) {
  look();
  thread_ = std::thread([this] { run(); });
}

LiveSite::~LiveSite() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  woken_.notify_all();
  thread_.join();
}

std::shared_ptr<const Site> LiveSite::site() const {
  const std::lock_guard lock(mutex_);
  return site_;
}

// Rows and plan are compared at intervals, as other processes save too and the database does not tell. A look
// without a change is cheap: rows are snapshots that share their blocks, and the plan is the same object.
bool LiveSite::look() {
  const std::shared_ptr<workers::wiki::Wiki> wiki = provider_.get();
  auto planned = wiki->prepare();
  auto rows = wiki->stored_pages();
  auto marks = wiki->store().stale_marks(wiki->branch());
  const std::shared_ptr<const Site> last = site();
  if (last && &last->wiki() == wiki.get() && last->is_of(planned, rows, marks)) return false;
  auto site = std::make_shared<const Site>(wiki, std::move(planned), std::move(rows), std::move(marks),
                                           last ? last->shared_diagrams() : nullptr);
  const std::lock_guard lock(mutex_);
  site_ = std::move(site);
  return true;
}

void LiveSite::run() {
  std::string last_failure;
  std::unique_lock lock(mutex_);
  while (!woken_.wait_for(lock, every_, [this] { return stopping_; })) {
    lock.unlock();
    std::string failure;
    try {
      if (look()) changed_();
      if (tick_) tick_();
    } catch (const std::exception& error) {
      failure = error.what();
      if (failure != last_failure)
        live_logger.warning("cannot look at the wiki; showing it as it was", error);
    }
    last_failure = std::move(failure);
    lock.lock();
  }
}

}  // namespace ossilar::web
