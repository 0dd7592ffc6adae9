// Keeps the site of a running server up to date with the wiki, whoever changes it: saves, sources, version
// control.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ossilar/web/site.h"
#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::web {

// A thread that makes the site anew when the wiki changed. Requests take the last one, so they neither wait
// for a save nor do its work twice.
//
// Thread-safety: every member may be called from any thread. Lifetime: the provider must outlive it.
// Failure: the constructor throws what opening and reading the wiki throw; later failures are logged, and the
// last site stays.
class LiveSite {
 public:
  // `changed` is called on the thread, after site() gives the new one; `tick` after each look.
  LiveSite(workers::wiki::WikiProvider& provider, std::chrono::milliseconds every,
           std::function<void()> changed, std::function<void()> tick = {});
  ~LiveSite();
  LiveSite(const LiveSite&) = delete;
  LiveSite& operator=(const LiveSite&) = delete;

  std::shared_ptr<const Site> site() const;

 private:
  void run();
  bool look();

  workers::wiki::WikiProvider& provider_;
  const std::chrono::milliseconds every_;
  const std::function<void()> changed_, tick_;
  mutable std::mutex mutex_;
  std::condition_variable woken_;
  bool stopping_ = false;  // guarded by mutex_, as is the next
  std::shared_ptr<const Site> site_;
  std::thread thread_;  // last, so that it starts when all else is there
};

}  // namespace ossilar::web
