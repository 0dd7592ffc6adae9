#include "ossilar/store/sqlite/sqlite_store.h"

#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Transaction.h>

#include <sqlite3.h>

#include <limits>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "ossilar/store/sqlite/operations.h"
#include "ossilar/store/sqlite/schema.h"
#include "ossilar/utils/logging.h"

namespace ossilar::store {
namespace {

// Pages whose words are indexed in one transaction, which others wait for.
constexpr std::size_t kWordsTogether = 16;

// A part of a transaction that can be taken back alone.
class Step {
 public:
  explicit Step(Connection& connection) : connection_(connection) {
    Query(connection_, "SAVEPOINT step").run();
  }
  // SQLite may have ended the whole transaction, and the step with it; whoever commits is told.
  ~Step() {
    if (done_) return;
    try {
      Query(connection_, "ROLLBACK TO step").run();
      Query(connection_, "RELEASE step").run();
    } catch (const SQLite::Exception&) {
      return;
    }
  }
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;

  void keep() {
    Query(connection_, "RELEASE step").run();
    done_ = true;
  }

 private:
  Connection& connection_;
  bool done_ = false;
};

// While one lives, the connection's commits are in the log and the log is not synced: after power loss they
// may be missing, and the database is sound (https://www.sqlite.org/pragma.html#pragma_synchronous, NORMAL).
class NotSynced {
 public:
  explicit NotSynced(Connection& connection) : connection_(connection) {
    connection_.database().exec("PRAGMA synchronous = NORMAL");
  }
  ~NotSynced() {
    if (connection_.database().tryExec("PRAGMA synchronous = FULL") != SQLITE_OK)
      logger.warning("what is saved from now on may be lost with the power; restart this program");
  }
  NotSynced(const NotSynced&) = delete;
  NotSynced& operator=(const NotSynced&) = delete;

 private:
  Connection& connection_;
};

std::string unsure_of(const std::string& attempt) {
  return "say whether it could " + attempt + " (ossilar check can)";
}

// One connection writes and one reads, each under a mutex of its own, so that drafts read while a commit
// waits for the disk. A thread that holds both took the writer's first.
//
// The snapshots are what was read last. After a write that failed, whose outcome only the file knows, they
// are dropped.
class Connections {
 public:
  explicit Connections(const std::filesystem::path& path)
      : file(path), writer(open_database(path)), reader(path, SQLite::OPEN_READONLY) {}

  Snapshots snapshots() {
    const std::lock_guard reading(reader_mutex);
    return last;
  }
  void set_snapshots(Snapshots snapshots) {
    const std::lock_guard reading(reader_mutex);
    last = std::move(snapshots);
  }

  const std::filesystem::path file;
  std::mutex writer_mutex;
  Connection writer;
  std::mutex reader_mutex;
  Connection reader;
  Snapshots last;  // guarded by reader_mutex
};

// One transaction of the connection that writes, which it holds from its begin to its end; it reads by that
// connection too, and so sees its own writes. Each write is a savepoint. Its snapshots become the database's
// when it is committed.
class SqliteTransaction final : public SqliteOperations<StoreTransaction> {
 public:
  SqliteTransaction(Connections& connections, std::string attempt)
      : connections_(connections), attempt_(std::move(attempt)), writing_(connections.writer_mutex) {
    with_storage_errors(connections_.file, attempt_, [&] {
      connections_.writer.require_in_place();
      Query(connections_.writer, "BEGIN IMMEDIATE").run();
    });
    last_ = connections_.snapshots();
  }

  ~SqliteTransaction() override {
    if (!ended_) take_back();
  }

  void commit() override {
    ended_ = true;
    std::string doing = attempt_;
    try {
      with_storage_errors(connections_.file, doing, [&] {
        require_open();
        doing = unsure_of(attempt_);
        Query(connections_.writer, "COMMIT").run();
      });
    } catch (...) {
      take_back();
      connections_.set_snapshots({});
      throw;
    }
    connections_.set_snapshots(std::move(last_));
  }

  std::unique_ptr<StoreTransaction> begin(const std::string& attempt) override {
    throw std::logic_error("a transaction within a transaction: " + attempt);
  }

 private:
  void run_reading(const std::string& attempt, const Work& work) override {
    with_storage_errors(connections_.file, attempt, [&] { work(connections_.writer, last_); });
  }

  void run_writing(const std::string& attempt, const Work& work) override {
    with_storage_errors(connections_.file, attempt, [&] {
      require_open();
      Step step(connections_.writer);
      Snapshots changed = last_;  // what is taken back was never read
      work(connections_.writer, changed);
      step.keep();
      last_ = std::move(changed);
    });
  }

  void run_writing_soon(const std::string& attempt, const Work& work) override { run_writing(attempt, work); }

  std::size_t words_together() const override { return std::numeric_limits<std::size_t>::max(); }

  bool is_open() { return sqlite3_get_autocommit(connections_.writer.database().getHandle()) == 0; }

  // SQLite itself ends a transaction after some failures, of a full disk for one.
  void require_open() {
    if (!is_open()) throw utils::Error("what was written before was taken back by a failure; try again");
  }

  void take_back() {
    try {
      if (is_open()) Query(connections_.writer, "ROLLBACK").run();
    } catch (const std::exception& error) {
      logger.warning("what a save wrote could not be taken back", error);
    }
  }

  Connections& connections_;
  const std::string attempt_;
  const std::unique_lock<std::mutex> writing_;
  Snapshots last_;
  bool ended_ = false;
};

// Each operation in a transaction of its own.
class SqliteStore final : public SqliteOperations<WikiStore> {
 public:
  explicit SqliteStore(const std::filesystem::path& file) : connections_(file) {}

  std::unique_ptr<StoreTransaction> begin(const std::string& attempt) override {
    return std::make_unique<SqliteTransaction>(connections_, attempt);
  }

  // They save reading what can be read again: while another process writes, they are not stored.
  void update_source_records(const std::map<std::string, std::optional<std::string>>& changes) override {
    if (changes.empty() || !is_writable_soon("store the source index")) return;
    SqliteOperations::update_source_records(changes);
  }

 private:
  void run_reading(const std::string& attempt, const Work& work) override {
    const std::lock_guard lock(connections_.reader_mutex);
    with_storage_errors(connections_.file, attempt, [&] {
      connections_.reader.require_in_place();
      const SQLite::Transaction snapshot(
          connections_.reader.database());  // its end, a rollback, changes nothing
      work(connections_.reader, connections_.last);
    });
  }

  // A transaction locks at its begin: one that reads first and locks later fails at once when another process
  // has written in between. A commit that fails may have reached the file: who opens it next may find it
  // made.
  void run_writing(const std::string& attempt, const Work& work) override {
    const std::lock_guard lock(connections_.writer_mutex);
    write_locked(attempt, work);
  }

  void write_locked(const std::string& attempt, const Work& work) {
    Snapshots changed = connections_.snapshots();
    std::string doing = attempt;
    try {
      with_storage_errors(connections_.file, doing, [&] {
        connections_.writer.require_in_place();
        SQLite::Transaction transaction(connections_.writer.database(),
                                        SQLite::TransactionBehavior::IMMEDIATE);
        work(connections_.writer, changed);
        doing = unsure_of(attempt);
        transaction.commit();
      });
    } catch (...) {
      connections_.set_snapshots({});
      throw;
    }
    connections_.set_snapshots(std::move(changed));
  }

  void run_writing_soon(const std::string& attempt, const Work& work) override {
    const std::lock_guard lock(connections_.writer_mutex);
    const NotSynced meanwhile(connections_.writer);
    write_locked(attempt, work);
  }

  std::size_t words_together() const override { return kWordsTogether; }

  // Whether nobody else is in the midst of writing, or is done within a moment.
  bool is_writable_soon(const std::string& attempt) {
    constexpr int kMomentMs = 500;
    const std::lock_guard lock(connections_.writer_mutex);
    return with_storage_errors(connections_.file, attempt, [&] {
      SQLite::Database& database = connections_.writer.database();
      database.setBusyTimeout(kMomentMs);
      const int code = database.tryExec("BEGIN IMMEDIATE");
      database.setBusyTimeout(kBusyTimeoutMs);
      if (code == SQLITE_OK) database.exec("ROLLBACK");
      if (code != SQLITE_OK && code != SQLITE_BUSY) throw SQLite::Exception(database.getHandle(), code);
      return code == SQLITE_OK;
    });
  }

  Connections connections_;
};

}  // namespace

std::unique_ptr<WikiStore> open_sqlite_store(const std::filesystem::path& file) {
  return with_storage_errors(
      file, "open it", [&]() -> std::unique_ptr<WikiStore> { return std::make_unique<SqliteStore>(file); });
}

}  // namespace ossilar::store
