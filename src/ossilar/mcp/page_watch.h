// Notices changed pages, whoever changed them: this server, another process, or version control. service.h
// owns one and passes what it notices to the subscriptions of each session.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

// A thread that compares the stored rows with those of its last look: regularly, and at once when asked to.
// It never opens a wiki, so a session that needs none creates no database. What is there at the first look is
// no change.
//
// Thread-safety: every member may be called from any thread. Lifetime: the provider must outlive it. Failure:
// a look of the thread that fails is logged, and the next one finds what it would have found.
class PageWatch {
 public:
  // Called for each page that changed; `listed` when it came or went. Called on the thread that looks, under
  // the lock of the look: it must not call look().
  using Changed = std::function<void(const std::string& page_id, bool listed)>;

  // Starts the thread. The destructor stops it, and waits for a look at work.
  PageWatch(workers::wiki::WikiProvider& provider, std::chrono::milliseconds every, Changed changed);
  ~PageWatch();
  PageWatch(const PageWatch&) = delete;
  PageWatch& operator=(const PageWatch&) = delete;

  // Has the watch's thread look soon, and does not wait for it.
  void wake();

  // Looks on the calling thread, before it returns. To be called before a subscriber is entered: what changed
  // earlier is then not reported to it, and what changes once it is entered is, even if the thread has not
  // looked yet. Throws what the store throws.
  void look();

 private:
  void run();

  workers::wiki::WikiProvider& provider_;
  const std::chrono::milliseconds every_;
  const Changed changed_;
  std::mutex mutex_;
  std::condition_variable woken_;
  bool asked_ = false;  // guarded by mutex_, as is the next
  bool stopping_ = false;
  std::mutex look_mutex_;  // one look at a time; guards the two below
  bool looked_ = false;
  store::StoredRows rows_;
  std::thread thread_;  // last, so that it starts when all else is there
};

}  // namespace ossilar::mcp
