// Runs work on a bounded number of threads.
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

// Jobs with the same key run one after the other in the order of their posting, so that jobs which would
// only wait for each other take one thread; all others run side by side.
//
// Thread-safety: post() and drain() may be called from any thread but the jobs' own.
class Scheduler {
 public:
  using Job = std::function<void()>;

  explicit Scheduler(std::size_t threads);
  // Waits for the jobs that run; those that have not begun are dropped.
  ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // Takes a job on; with key "" it waits for no other. `bytes` is what it keeps in memory: while what waits
  // is more than a fixed number of jobs or bytes, post() waits. A job must not throw.
  void post(std::string key, std::size_t bytes, Job job);

  // Waits until every job is done, or until `patience` is over: then false.
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
  std::condition_variable changed_;  // a job was taken or is done
  std::deque<Entry> waiting_;        // guarded by mutex_, as are the four below
  std::set<std::string> busy_keys_;
  std::size_t waiting_bytes_ = 0;
  std::size_t running_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace ossilar::mcp
