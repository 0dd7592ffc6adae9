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
    lock.unlock();
    std::string failure;
    try {
      look();
    } catch (const std::exception& error) {
      failure = error.what();
      // Once, not at every look: a client may never read what goes to standard error.
      if (failure != last_failure) logger.warning("cannot look for changed pages", error);
    }
    last_failure = std::move(failure);
    lock.lock();
  }
}

void PageWatch::look() {
  const auto wiki = provider_.opened();
  if (!wiki) return;
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
