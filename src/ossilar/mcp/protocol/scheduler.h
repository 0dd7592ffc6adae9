// Runs jobs on a fixed number of threads. session.cc posts each request here, so that a slow one does not
// keep the thread that reads lines from the next.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace ossilar::mcp {

// Jobs with the same key run one after the other, in the order in which they were posted. Saves of one page
// would only wait for each other; with a key they occupy one thread and leave the rest to other requests.
// Jobs with different keys run concurrently.
//
// Thread-safety: post() and drain() may be called from any thread but the jobs' own: a job that calls them
// may wait for itself. No thread may be in either when the scheduler is destroyed.
class Scheduler {
 public:
  using Job = std::function<void()>;

  explicit Scheduler(std::size_t threads);
  // Waits for the jobs that run, without a limit; those that have not begun are dropped.
  ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // Queues a job; with key "" it waits for no other. `bytes` is about what it keeps in memory. While the
  // queue is full (scheduler.cc has the limits), post() waits, and with it the client whose lines are not
  // read. A job must not throw.
  void post(std::string key, std::size_t bytes, Job job);

  // Waits until no job waits or runs: true. False after `patience`; the jobs go on all the same.
  bool drain(std::chrono::milliseconds patience);

 private:
  struct Entry {
    std::string key;
    std::size_t bytes;
    Job job;
  };
  void work();
  std::deque<Entry>::iterator next_runnable();

  std::mutex mutex_;
  std::condition_variable may_run_;  // a job was posted, or a key became free
  std::condition_variable changed_;  // a job was taken or is done: what post() and drain() wait for
  std::deque<Entry> waiting_;        // guarded by mutex_, as are the four below
  std::set<std::string> busy_keys_;  // of the jobs that run; never ""
  std::size_t waiting_bytes_ = 0;
  std::size_t running_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace ossilar::mcp
