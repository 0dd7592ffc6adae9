// The connections of one store: a pool, and the one that holds the write lock. Internal to this room; shared
// by the store, its transactions and the lock.
//
// What the holder of the lock writes rides on the connection that holds it. So a holder that was cut off or
// stopped, whose connection the server has ended and whose lock another has by then, can write nothing.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ossilar/store/postgresql/connection.h"

namespace ossilar::store::postgresql {

// Thread-safety: any thread.
class Connections {
 public:
  explicit Connections(Connection::Options options);

  // A connection for one thread. It goes back into the pool at the end of the scope, unless it was lost or is
  // within a transaction, or is the lock's.
  class Lease {
   public:
    Lease(Connections& pool, std::shared_ptr<Connection> connection, bool is_locks)
        : pool_(&pool), connection_(std::move(connection)), is_locks_(is_locks) {}
    ~Lease();
    Lease(Lease&&) = default;
    Lease& operator=(Lease&&) = delete;
    Connection* operator->() const { return connection_.get(); }
    Connection& operator*() const { return *connection_; }
    bool is_locks() const { return is_locks_; }
    const std::shared_ptr<Connection>& share() const { return connection_; }
    // Makes it nobody's: it is closed with the last who holds it.
    std::shared_ptr<Connection> take() { return std::move(connection_); }

   private:
    Connections* pool_;
    std::shared_ptr<Connection> connection_;
    bool is_locks_;
  };

  // A connection that is not in use, or a new one. Throws utils::Error where none can be made.
  Lease lend();
  // The same to write with: for the thread that holds the lock the lock's connection. Throws ConnectionLost
  // when the lock was lost with it.
  Lease lend_for_writing();
  // A connection made now, after which no older one is lent: for when one turned out to be lost, as after a
  // restart of the server all are.
  Lease renew();

  // From here on this thread writes over `connection`, which holds the lock of `branch`; until
  // release_lock(), by whatever thread.
  void hold_lock(std::shared_ptr<Connection> connection, const std::string& branch);
  // A number of its own for each time that a lock was had, if this thread holds that of `branch`; else 0.
  std::int64_t held_lock(const std::string& branch);
  std::shared_ptr<Connection> release_lock();

  // "the database d at host:5432"
  const std::string& shown() const { return shown_; }
  const std::string& program() const { return options_.program; }
  // How often the server was asked, over all connections that are in the pool now.
  std::size_t round_trips();

 private:
  void put_back(std::shared_ptr<Connection> connection);

  const Connection::Options options_;
  const std::string shown_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<Connection>> idle_;  // guarded by mutex_, as are the next
  std::shared_ptr<Connection> locks_;
  std::thread::id holder_;
  std::string held_branch_;
  std::int64_t lock_number_ = 0;
};

// Throws `error`, which is being handled, as StorageError: "the database d at host: cannot ATTEMPT: the
// error's words", with advice where there is any. Rethrows a StorageError unchanged, and what is no failure
// of the database, JSON or this program. To be called from a handler only.
[[noreturn]] void rethrow_as_storage_error(const std::string& shown, const std::string& attempt,
                                           const std::exception& error);

// The result of `work`, whose failures leave as StorageError. `attempt` is read when a failure is reported.
template <class Work>
auto with_storage_errors(const std::string& shown, const std::string& attempt, Work work) {
  try {
    return work();
  } catch (const std::exception& error) {
    rethrow_as_storage_error(shown, attempt, error);
  }
}

}  // namespace ossilar::store::postgresql
