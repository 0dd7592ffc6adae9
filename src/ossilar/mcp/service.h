// What all sessions of a process share: the wiki, the threads that answer requests, and the watch for changed
// pages. server.cc has one for its one session, http/server.cc one for all of its clients.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/mcp/page_watch.h"
#include "ossilar/mcp/protocol/message.h"
#include "ossilar/mcp/protocol/scheduler.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

class Session;

// Is told of each request that runs on the threads of a service, for measurements.
//
// Thread-safety: called from any thread.
class Observer {
 public:
  Observer() = default;
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;
  virtual ~Observer() = default;

  // Gives what is told each step of the request's work.
  virtual utils::Task::Probe probe(const Request& request) = 0;
  // `message` is the answer, none if the request was cancelled or listens.
  virtual void ended(const Request& request, const std::optional<Map>& message,
                     std::chrono::steady_clock::duration took) = 0;
};

// Thread-safety: every member may be called from any thread. Lifetime: provider, observer and the outlets of
// its sessions must outlive it. The destructor waits for requests that run and drops those that wait.
class Service {
 public:
  explicit Service(workers::wiki::WikiProvider& provider, Observer* observer = nullptr);

  workers::wiki::WikiProvider& provider() { return provider_; }
  Scheduler& scheduler() { return scheduler_; }
  PageWatch& watch() { return watch_; }
  Observer* observer() { return observer_; }

  // Tells the session of changed pages for as long as it lives.
  void enter(const std::shared_ptr<Session>& session);
  // Cancels what is under way in all sessions, and answers those that listen.
  void end_sessions();

 private:
  std::vector<std::shared_ptr<Session>> sessions();
  void tell(const std::string& page_id, bool listed);

  workers::wiki::WikiProvider& provider_;
  Observer* const observer_;
  std::mutex mutex_;
  std::vector<std::weak_ptr<Session>> sessions_;  // guarded by mutex_
  PageWatch watch_;
  Scheduler scheduler_;  // last: its threads use all members above, so they end first
};

}  // namespace ossilar::mcp
