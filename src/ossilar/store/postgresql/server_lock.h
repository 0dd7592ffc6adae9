// The write lock of a wiki that several machines write: an advisory lock of the database, for each branch.
// Internal to this room.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ossilar/store/lock_gate.h"
#include "ossilar/store/postgresql/connections.h"
#include "ossilar/store/write_lock.h"

namespace ossilar::store::postgresql {

// The server gives the lock to those who wait in the order in which they came, and frees it when the holder's
// connection ends, however it ends. A holder that shows no sign of life for kSilence, such as a stopped
// process or a machine that was unplugged, has its connection ended by the server.
//
// Thread-safety: as WriteLock. Errors: StorageError beside LockBusy.
class ServerLock final : public WriteLock {
 public:
  static constexpr std::chrono::seconds kSilence{4};

  // What is read in the round trip that takes the lock, right after it is had: the rows that the holder asks
  // for first. `take` gets the results, the first of which is at `at`, once the lock is held.
  struct Passing {
    std::vector<Statement> statements = {};
    std::function<void(const std::vector<Result>& results, std::size_t at)> take = {};
  };

  ServerLock(std::shared_ptr<Connections> connections, const std::string& branch,
             std::chrono::milliseconds timeout, std::function<Passing()> passing);
  ~ServerLock() override;

  void acquire(bool wait, const utils::Task& task = {}) override;
  void release() override;

 private:
  class Heartbeat;

  void acquire_from_server(const LockAttempt& attempt, bool wait, const utils::Task& task);
  std::optional<std::vector<Result>> wait_on(Connection& connection, const LockAttempt& attempt,
                                             const utils::Task& task, const Passing& passing) const;
  std::optional<std::vector<Result>> try_on(Connection& connection, const Passing& passing) const;
  std::string holder();

  const std::shared_ptr<Connections> connections_;
  const std::string branch_;
  const std::int64_t key_;
  const std::chrono::milliseconds timeout_;
  const std::function<Passing()> passing_;
  LockGate gate_;
  std::unique_ptr<Heartbeat> heartbeat_;  // while the lock is held
};

}  // namespace ossilar::store::postgresql
