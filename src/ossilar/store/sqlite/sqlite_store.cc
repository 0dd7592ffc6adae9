// Every operation is written once, in operations.h; this file says how it runs: in a transaction of its own
// (SqliteStore) or as a savepoint of a longer one (SqliteTransaction).
//
// Two connections: with one, a draft that reads would wait while a commit waits for the disk. In WAL mode a
// reader sees the last commit and waits for no writer. Snapshots are valid for committed rows only, so each
// write works on a copy, which replaces the shared ones after its commit.
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

// Pages whose words are indexed in one transaction. More at once cost less in all, but other writers wait for
// longer.
constexpr std::size_t kWordsTogether = 16;

// A part of a transaction that can be taken back alone: a savepoint, rolled back unless it is kept.
class Step {
 public:
  explicit Step(Connection& connection) : connection_(connection) {
    Query(connection_, "SAVEPOINT step").run();
  }
  // After some failures SQLite has ended the whole transaction, and the savepoint with it. The failure here
  // is ignored then: require_open() reports it at the next write and at the commit.
  ~Step() {
    if (done_) return;
    try {
      // ROLLBACK TO leaves the savepoint open; RELEASE ends it.
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

// While an object of it lives, the connection's commits go to the log without a sync. After power loss they
// may be missing, but the database is sound (https://www.sqlite.org/pragma.html#pragma_synchronous, NORMAL).
// The setting cannot be changed within a transaction, so it encloses one.
class NotSynced {
 public:
  explicit NotSynced(Connection& connection) : connection_(connection) {
    connection_.database().exec("PRAGMA synchronous = NORMAL");
  }
  // A destructor cannot throw, but later saves would not be durable: that must not go unnoticed.
  ~NotSynced() {
    if (connection_.database().tryExec("PRAGMA synchronous = FULL") != SQLITE_OK) {
      logger.warning(
          "cannot turn synced commits back on, so a power cut may lose new saves; restart this program");
    }
  }
  NotSynced(const NotSynced&) = delete;
  NotSynced& operator=(const NotSynced&) = delete;

 private:
  Connection& connection_;
};

// What a failed commit could not do: tell whether it succeeded. Reads as "cannot tell whether the attempt
// to store the page a succeeded".
std::string unsure_of(const std::string& attempt) {
  return "tell whether the attempt to " + attempt + " succeeded (run ossilar check)";
}

// The two connections of a store and its snapshots, shared by SqliteStore and its transactions.
//
// Thread-safety: each connection belongs to the thread that holds its mutex. Lock order: the writer's mutex,
// then the reader's; the reader's alone is fine.
//
// The snapshots are what was read or committed last. An older one is never wrong, only more work for the next
// read.
class Connections {
 public:
  explicit Connections(const std::filesystem::path& path)
      // The writer first: it creates the file and its tables.
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

// One transaction of the writing connection, whose mutex it holds from its begin to its end. It reads through
// that connection too, and so sees its own writes. Each write is a savepoint. Its snapshots become the
// store's when it is committed.
//
// Thread-safety: one thread. Lifetime: the store must outlive it.
class SqliteTransaction final : public SqliteOperations<StoreTransaction> {
 public:
  SqliteTransaction(Connections& connections, std::string attempt)
      : connections_(connections), attempt_(std::move(attempt)), writing_(connections.writer_mutex) {
    with_storage_errors(connections_.file, attempt_, [&] {
      connections_.writer.require_in_place();
      Query(connections_.writer, "BEGIN IMMEDIATE").run();
    });
    // After BEGIN, which may wait for other writers: readers of this process may have taken up their commits
    // meanwhile.
    last_ = connections_.snapshots();
  }

  ~SqliteTransaction() override {
    if (!ended_) take_back();
  }

  // A failure before COMMIT is reported as "cannot store ...", one of COMMIT as "cannot tell whether the
  // attempt to store ...": with_storage_errors() reads `doing` only then. `ended_` is set first, as the
  // destructor must not take back again.
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
  // Reading only brings snapshots up to date, so it needs no copy of them, and no savepoint.
  void run_reading(const std::string& attempt, const Work& work) override {
    with_storage_errors(connections_.file, attempt, [&] { work(connections_.writer, last_); });
  }

  // Works on a copy of the snapshots: a write that fails is rolled back, and what it put into them was never
  // stored.
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

  // The commit of the whole transaction is synced, so this write is too.
  void run_writing_soon(const std::string& attempt, const Work& work) override { run_writing(attempt, work); }

  // No limit: other writers wait for this transaction anyway.
  std::size_t words_together() const override { return std::numeric_limits<std::size_t>::max(); }

  // Autocommit is off while a transaction is open.
  bool is_open() { return sqlite3_get_autocommit(connections_.writer.database().getHandle()) == 0; }

  // SQLite ends a transaction by itself after some failures, such as a full disk. A write after that would be
  // committed on its own, without those before it.
  void require_open() {
    if (!is_open()) throw utils::Error("an earlier failure rolled this transaction back; try again");
  }

  // Called from the destructor and while another failure is handled, so it throws nothing. What could not be
  // rolled back is not committed either: it ends with the connection.
  void take_back() {
    try {
      if (is_open()) Query(connections_.writer, "ROLLBACK").run();
    } catch (const std::exception& error) {
      logger.warning("cannot roll back the transaction of a save", error);
    }
  }

  Connections& connections_;
  const std::string attempt_;
  const std::unique_lock<std::mutex> writing_;  // released after the destructor has taken back
  Snapshots last_;
  bool ended_ = false;
};

// Each operation in a transaction of its own.
//
// Thread-safety: as WikiStore; writes wait for each other, reads too, but reads do not wait for writes.
class SqliteStore final : public SqliteOperations<WikiStore> {
 public:
  explicit SqliteStore(const std::filesystem::path& file) : connections_(file) {}

  std::unique_ptr<StoreTransaction> begin(const std::string& attempt) override {
    return std::make_unique<SqliteTransaction>(connections_, attempt);
  }

  // Records can be made again from the sources, so while another process writes they are not stored. The
  // check and the write are apart: a writer that begins in between is waited for, which costs time and
  // nothing else.
  void update_source_records(const std::map<std::string, std::optional<std::string>>& changes) override {
    if (changes.empty() || !is_writable_soon("store the source index")) return;
    SqliteOperations::update_source_records(changes);
  }

 private:
  void run_reading(const std::string& attempt, const Work& work) override {
    const std::lock_guard lock(connections_.reader_mutex);
    with_storage_errors(connections_.file, attempt, [&] {
      connections_.reader.require_in_place();
      // One state of the database for all queries of `work`. It ends with a rollback, which undoes nothing
      // here.
      const SQLite::Transaction snapshot(connections_.reader.database());
      work(connections_.reader, connections_.last);
    });
  }

  // The transaction locks the database when it begins. By default SQLite locks at the first write, and if
  // another process has committed between a read and that write, it fails at once as busy, without waiting.
  void run_writing(const std::string& attempt, const Work& work) override {
    const std::lock_guard lock(connections_.writer_mutex);
    write_locked(attempt, work);
  }

  // The caller holds writer_mutex. As in SqliteTransaction::commit(), `doing` says which failure is reported.
  // The snapshots are dropped after any failure: a commit that failed may still have reached the file.
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

  // Whether no other process writes, or the one that does is done within half a second: much longer than a
  // save holds the file, and short for a caller that only wants to read. The mutex still waits for writers of
  // this process.
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
