// Rows are compared at intervals. To notify on our own saves would be simpler, but other processes save too,
// and the database does not notify us of that. A look without a change is cheap: rows are snapshots that
// share their blocks with the last ones (utils/snapshot_map.h).
//
// mutex_ guards what run() waits for and is never held during a look; look_mutex_ guards the rows.
#include "ossilar/mcp/page_watch.h"

#include "ossilar/utils/logging.h"

namespace ossilar::mcp {
namespace {

const utils::Logger logger("ossilar.mcp.page_watch");

}  // namespace

PageWatch::PageWatch(workers::wiki::WikiProvider& provider, std::chrono::milliseconds every, Changed changed)
    : provider_(provider), every_(every), changed_(std::move(changed)), thread_([this] { run(); }) {}

PageWatch::~PageWatch() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  woken_.notify_all();
  thread_.join();
}

void PageWatch::wake() {
  {
    const std::lock_guard lock(mutex_);
    asked_ = true;
  }
  woken_.notify_all();
}

void PageWatch::run() {
  std::string last_failure;
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    woken_.wait_for(lock, every_, [this] { return stopping_ || asked_; });
    asked_ = false;
    if (stopping_) return;
    lock.unlock();  // wake() must not wait for a look
    std::string failure;
    try {
      look();
    } catch (const std::exception& error) {
      failure = error.what();
      // Once, not at every look: a client may never read standard error, and a full pipe would block this
      // thread.
      if (failure != last_failure) logger.warning("cannot check for changed pages", error);
    }
    last_failure = std::move(failure);
    lock.lock();
  }
}

void PageWatch::look() {
  const auto wiki = provider_.opened();
  if (!wiki) return;
  // Before the rows are read: of two looks at once the one with older rows could otherwise compare last, and
  // report a change backwards.
  const std::lock_guard one_at_a_time(look_mutex_);
  const store::StoredRows now = wiki->stored_pages();
  if (std::exchange(looked_, true)) {
    for_each_difference(rows_, now, [&](const std::string& page_id, const Map* before, const Map* after) {
      changed_(page_id, before == nullptr || after == nullptr);
    });
  }
  rows_ = now;
}

}  // namespace ossilar::mcp
