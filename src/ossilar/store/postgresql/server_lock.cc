// The lock belongs to a session and not to a transaction, as a save takes it before it begins one. While it
// is held, the server ends the session after kSilence without a statement; the heartbeat keeps a holder that
// only works slowly, as one that embeds passages does, from being taken for a dead one.
//
// Who holds it stands in the session's application_name, which every role may read in pg_stat_activity: a row
// in a table would take a transaction more.
#include "ossilar/store/postgresql/server_lock.h"

#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "ossilar/store/postgresql/advisory_key.h"
#include "ossilar/store/repository.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/text.h"

namespace ossilar::store::postgresql {
namespace {

using std::chrono::milliseconds;

const utils::Logger lock_logger("ossilar.store.lock");

// Several signs of life within kSilence.
constexpr milliseconds kBeat(1000);
// The server cuts a longer application_name.
constexpr std::size_t kLongestName = 63;
// How much longer than the wait the server may take to answer.
constexpr milliseconds kGrace(5000);
constexpr std::string_view kCancelled = "57014";

// A list of expressions is evaluated from left to right: without a limit for the lock alone, and with the
// time at which it was had. Settings of a statement that fails are taken back.
#define OSSILAR_HOLD                                                 \
  "set_config('idle_session_timeout', '4s', false),"                 \
  " set_config('idle_in_transaction_session_timeout', '4s', false)," \
  " set_config('application_name',"                                  \
  " to_char(clock_timestamp() AT TIME ZONE 'UTC', 'YYYY-MM-DD\"T\"HH24:MI:SS\"Z\"') || $2, false)"
constexpr const char* kTake =
    "SELECT set_config('lock_timeout', '0', false), pg_advisory_lock($1::bigint),"
    " set_config('lock_timeout', '10s', false), " OSSILAR_HOLD;
constexpr const char* kTry =
    "SELECT held, CASE WHEN held THEN row(" OSSILAR_HOLD
    ")::text END FROM (SELECT pg_try_advisory_lock($1::bigint) AS held OFFSET 0) AS attempt";
constexpr const char* kRelease =
    "SELECT pg_advisory_unlock($1::bigint), set_config('idle_session_timeout', '0', false),"
    " set_config('idle_in_transaction_session_timeout', '0', false),"
    " set_config('application_name', $2, false)";
constexpr const char* kHolder =
    "SELECT application_name FROM pg_locks JOIN pg_stat_activity USING (pid)"
    " WHERE locktype = 'advisory' AND granted AND objsubid = 1"
    " AND (classid::bigint << 32 | objid::bigint) = $1::bigint AND pg_locks.database ="
    " (SELECT oid FROM pg_database WHERE datname = current_database())";

// What follows the time in the name: "|12|ossilar save|host". holder_named() parses it.
std::string holder_suffix(const std::string& program) {
  constexpr std::size_t kTime = std::string_view("2026-11-25T13:20:00Z").size();
  const std::string text = "|" + std::to_string(getpid()) + "|" + program + "|" + host_name();
  return std::string(utils::utf8_prefix(text, kLongestName - kTime));
}

// The name may be that of any program, so it is parsed with care and printed with escapes.
std::string holder_named(const std::string& name) {
  std::vector<std::string> parts(1);
  for (const char c : name) {
    if (c == '|') {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  if (parts.size() != 4) return "another program";
  const std::string& host = parts[3];
  if (parts[1] == std::to_string(getpid()) && host_name().starts_with(host))
    return "another save of this process";
  return utils::printable("process " + parts[1] + " on " + host + " (" + parts[2] + ", since " + parts[0] +
                          ")");
}

}  // namespace

// Shows the server once a second that this process lives. A process that is stopped shows nothing.
class ServerLock::Heartbeat {
 public:
  explicit Heartbeat(std::shared_ptr<Connection> connection)
      : connection_(std::move(connection)), thread_([this] { beat(); }) {}
  ~Heartbeat() {
    {
      const std::lock_guard lock(mutex_);
      ended_ = true;
    }
    end_.notify_one();
    thread_.join();
  }
  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;

 private:
  void beat() {
    std::unique_lock lock(mutex_);
    while (!end_.wait_for(lock, kBeat, [this] { return ended_; })) {
      lock.unlock();
      connection_->ping();
      lock.lock();
    }
  }

  const std::shared_ptr<Connection> connection_;
  std::mutex mutex_;
  std::condition_variable end_;
  bool ended_ = false;  // guarded by mutex_
  std::thread thread_;
};

ServerLock::ServerLock(std::shared_ptr<Connections> connections, const std::string& branch,
                       milliseconds timeout, std::function<Passing()> passing)
    : connections_(std::move(connections)),
      branch_(branch),
      key_(advisory_key("ossilar write lock of " + branch)),
      timeout_(timeout),
      passing_(std::move(passing)) {}

ServerLock::~ServerLock() = default;

// catch (...), as utils::Cancelled is not a std::exception.
void ServerLock::acquire(bool wait, const utils::Task& task) {
  const LockAttempt attempt(wait ? timeout_ : milliseconds(0));
  gate_.enter(attempt, task);
  try {
    acquire_from_server(attempt, wait, task);
  } catch (const LockBusy&) {
    gate_.leave();
    throw;
  } catch (const std::exception& error) {
    gate_.leave();
    rethrow_as_storage_error(connections_->shown(), "take the write lock", error);
  } catch (...) {
    gate_.leave();
    throw;
  }
}

// A connection that is lent may be one that the server has closed since, so a lost one is tried once more
// with a new one: nothing was done over it yet. When the lock is not had, the connection is dropped: a wait
// that was cancelled at the very moment when the lock came would keep it.
void ServerLock::acquire_from_server(const LockAttempt& attempt, bool wait, const utils::Task& task) {
  for (bool again = false;; again = true) {
    auto connection = (again ? connections_->renew() : connections_->lend()).take();
    const Passing passing = passing_();
    std::optional<std::vector<Result>> results;
    try {
      results = wait ? wait_on(*connection, attempt, task, passing) : try_on(*connection, passing);
      if (!results) {
        connection.reset();
        throw lock_busy(holder(), LockAttempt::Clock::now() - attempt.began);
      }
    } catch (const ConnectionLost&) {
      if (again) throw;
      continue;
    }
    heartbeat_ = std::make_unique<Heartbeat>(connection);
    connections_->hold_lock(std::move(connection), branch_);
    try {
      passing.take(*results, 1);
    } catch (
        const std::exception& error) {  // the lock is held all the same; the next query says what is wrong
      lock_logger.warning("cannot use the rows that came with the write lock", error);
    }
    return;
  }
}

// None when the lock was not had before the deadline.
std::optional<std::vector<Result>> ServerLock::wait_on(Connection& connection, const LockAttempt& attempt,
                                                       const utils::Task& task,
                                                       const Passing& passing) const {
  const auto is_over = [&] { return task.is_cancelled() || LockAttempt::Clock::now() >= attempt.deadline; };
  const Connection::Wait wait{.during = is_over, .patience = timeout_ + kGrace};
  std::vector<Statement> statements = passing.statements;
  statements.insert(statements.begin(),
                    Statement{.sql = kTake, .values = {key_, holder_suffix(connections_->program())}});
  try {
    return connection.run(statements, wait);
  } catch (const ServerError& error) {
    if (error.state() != kCancelled) throw;
    task.check();
    return std::nullopt;
  }
}

// None when another holds it.
std::optional<std::vector<Result>> ServerLock::try_on(Connection& connection, const Passing& passing) const {
  std::vector<Statement> statements = passing.statements;
  statements.insert(statements.begin(),
                    Statement{.sql = kTry, .values = {key_, holder_suffix(connections_->program())}});
  std::vector<Result> results = connection.run(statements);
  if (!results.front().flag(0, 0)) return std::nullopt;
  return results;
}

std::string ServerLock::holder() {
  const auto connection = connections_->lend();
  const Result found = connection->run_one({.sql = kHolder, .values = {key_}});
  return found.rows() == 0 ? "another program" : holder_named(found.text(0, 0));
}

// The heartbeat ends first: a connection that goes back into the pool is another's. A lock that was lost with
// its connection is free already. Whoever wrote under it knows from the writes: they failed, or are stored.
void ServerLock::release() {
  heartbeat_.reset();
  auto connection = connections_->release_lock();
  try {
    with_storage_errors(connections_->shown(), "release the write lock", [&] {
      const Connections::Lease lease(*connections_, std::move(connection), false);
      lease->run_one({.sql = kRelease, .values = {key_, connections_->program()}});
    });
  } catch (const StorageError& error) {
    lock_logger.warning("the connection that held the write lock is lost; the lock is free", error);
  }
  gate_.leave();
}

}  // namespace ossilar::store::postgresql
