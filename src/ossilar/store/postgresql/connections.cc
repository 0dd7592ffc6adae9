#include "ossilar/store/postgresql/connections.h"

#include <utility>

#include "ossilar/store/repository.h"
#include "ossilar/store/stored_form.h"
#include "ossilar/utils/json.h"

namespace ossilar::store::postgresql {
namespace {

// Connections that are kept open although nobody uses them. A server of ours works with eight threads at
// most; what a process keeps, it takes from all others (max_connections is 100 by default).
constexpr std::size_t kMostIdle = 4;

// SQLSTATEs: https://www.postgresql.org/docs/15/errcodes-appendix.html
std::string advice_on(const std::string& state) {
  if (state == "53100") return "; free some space on the database's disk and try again";
  if (state == "53300") return "; the server has no connection left: try again, or raise its max_connections";
  if (state == "55P03" || state == "40P01") return "; another program writes to it for long: try again";
  if (state == "42501") return "; the role of this address may not do that: grant it, or use another role";
  if (state == "25006") return "; this server is read-only, perhaps a standby: use the primary's address";
  return "";
}

}  // namespace

Connections::Connections(Connection::Options options)
    : options_(std::move(options)), shown_(shown_address(options_.url)) {}

Connections::Lease::~Lease() {
  if (connection_ && !is_locks_) pool_->put_back(std::move(connection_));
}

Connections::Lease Connections::lend() {
  {
    const std::lock_guard lock(mutex_);
    while (!idle_.empty()) {
      auto connection = std::move(idle_.back());
      idle_.pop_back();
      if (connection->is_open()) return {*this, std::move(connection), false};
    }
  }
  return {*this, std::make_shared<Connection>(options_), false};
}

Connections::Lease Connections::lend_for_writing() {
  {
    const std::lock_guard lock(mutex_);
    if (locks_ && holder_ == std::this_thread::get_id()) {
      if (!locks_->is_open()) {
        throw ConnectionLost(
            "the connection that held the write lock is lost, and the lock with it; try again");
      }
      return {*this, locks_, true};
    }
  }
  return lend();
}

Connections::Lease Connections::renew() {
  {
    const std::lock_guard lock(mutex_);
    idle_.clear();
  }
  return {*this, std::make_shared<Connection>(options_), false};
}

void Connections::hold_lock(std::shared_ptr<Connection> connection, const std::string& branch) {
  const std::lock_guard lock(mutex_);
  held_branch_ = branch;
  ++lock_number_;
  locks_ = std::move(connection);
  holder_ = std::this_thread::get_id();
}

std::int64_t Connections::held_lock(const std::string& branch) {
  const std::lock_guard lock(mutex_);
  return locks_ && holder_ == std::this_thread::get_id() && held_branch_ == branch ? lock_number_ : 0;
}

std::shared_ptr<Connection> Connections::release_lock() {
  const std::lock_guard lock(mutex_);
  holder_ = {};
  return std::exchange(locks_, nullptr);
}

std::size_t Connections::round_trips() {
  const std::lock_guard lock(mutex_);
  std::size_t count = locks_ ? locks_->round_trips() : 0;
  for (const auto& connection : idle_) count += connection->round_trips();
  return count;
}

void Connections::put_back(std::shared_ptr<Connection> connection) {
  if (!connection->is_open() || connection->is_in_transaction()) return;
  const std::lock_guard lock(mutex_);
  if (idle_.size() < kMostIdle) idle_.push_back(std::move(connection));
}

// `throw;` keeps the dynamic type, and the place of the throw, of what is passed on.
void rethrow_as_storage_error(const std::string& shown, const std::string& attempt,
                              const std::exception& error) {
  if (dynamic_cast<const StorageError*>(&error) != nullptr) throw;
  const std::string message = shown + ": cannot " + attempt + ": " + error.what();
  if (const auto* refused = dynamic_cast<const ServerError*>(&error))
    throw StorageError(message + advice_on(refused->state()));
  if (dynamic_cast<const DamagedError*>(&error) != nullptr) throw StorageError(message, true);
  if (dynamic_cast<const utils::Error*>(&error) != nullptr ||
      dynamic_cast<const Map::exception*>(&error) != nullptr) {
    throw StorageError(message);
  }
  throw;
}

}  // namespace ossilar::store::postgresql
