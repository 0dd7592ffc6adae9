// Notices changed pages, whoever changed them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

// A thread that compares the stored rows with those of before, now and then, and at once when it is asked to.
// It looks only at a wiki that something else has opened. What is there at the first look is no change.
//
// Thread-safety: every member may be called from any thread. Lifetime: the provider must outlive it.
class PageWatch {
 public:
  // Is told the id of a page that changed, and whether it came or went. Called on the thread that looks.
  using Changed = std::function<void(const std::string& page_id, bool listed)>;

  PageWatch(workers::wiki::WikiProvider& provider, std::chrono::milliseconds every, Changed changed);
  ~PageWatch();
  PageWatch(const PageWatch&) = delete;
  PageWatch& operator=(const PageWatch&) = delete;

  // Looks soon, on the watch's thread.
  void wake();

  // Looks before it returns. Who asks to be told of changes looks first, so that none after it is missed.
  // Throws what the store throws.
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
