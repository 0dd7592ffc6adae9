// Every operation is written once, in operations.h; this file says how it runs: alone, or as a savepoint of a
// transaction. Each writing transaction first locks the row of the counter, so writers come one after the
// other, as they do in SQLite: what a transaction has read stays true until its end.
#include "ossilar/store/postgresql/postgresql_store.h"

#include <chrono>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "ossilar/store/postgresql/connections.h"
#include "ossilar/store/postgresql/operations.h"
#include "ossilar/store/postgresql/schema.h"
#include "ossilar/store/postgresql/server_lock.h"
#include "ossilar/store/postgresql/server_turns.h"
#include "ossilar/store/stored_form.h"
#include "ossilar/utils/logging.h"

namespace ossilar::store {
namespace postgresql {
namespace {

const utils::Logger logger("ossilar.store");

constexpr const char* kBegin = "BEGIN";
constexpr const char* kRollback = "ROLLBACK";
constexpr const char* kSavepoint = "SAVEPOINT step";
constexpr const char* kReleaseSavepoint = "RELEASE SAVEPOINT step";
constexpr const char* kRollBackToSavepoint = "ROLLBACK TO SAVEPOINT step";
constexpr const char* kNotSynced = "SET LOCAL synchronous_commit = off";
// The mark tells later what became of a transaction. Its number would not: the server gives that of one that
// a crash took back to another one.
constexpr const char* kLockCounter = "SELECT revision, gen_random_uuid()::text FROM counter FOR UPDATE";
constexpr const char* kLeaveMark = "INSERT INTO commits (mark) VALUES ($1::text::uuid)";
constexpr const char* kDropOldMarks = "DELETE FROM commits WHERE at < now() - interval '1 hour'";
// Waits for a transaction that the server has not missed yet.
constexpr const char* kWaitForWriters = "SELECT FROM counter FOR UPDATE";
constexpr const char* kHasMark = "SELECT EXISTS (SELECT FROM commits WHERE mark = $1::text::uuid)";

// How long the outcome of a commit is asked for whose connection was lost: the server may be restarting.
constexpr std::chrono::seconds kOutcomePatience(10);
constexpr std::chrono::milliseconds kOutcomePause(200);

// The snapshots of a store: what was read or committed last. An older one is never wrong, only more work.
//
// Thread-safety: any thread.
class SharedSnapshots {
 public:
  Snapshots get() const {
    const std::lock_guard lock(mutex_);
    return last_;
  }
  // Several readers may be done in any order, so each branch keeps the one that is ahead.
  void offer(const Snapshots& read) {
    const std::lock_guard lock(mutex_);
    keep_later(last_.pages, read.pages);
    keep_later(last_.digests, read.digests);
  }
  void drop() {
    const std::lock_guard lock(mutex_);
    last_ = {};
    known_while_ = 0;
  }

  // The rows of a branch that cannot have changed since they were read under the write lock `lock`, a number
  // that no other lock has: rows are written under the lock alone.
  std::optional<StoredRows> rows_under(std::int64_t lock_number, const std::string& branch) const {
    const std::lock_guard lock(mutex_);
    const auto found = last_.pages.find(branch);
    if (known_while_ != lock_number || found == last_.pages.end()) return std::nullopt;
    return found->second.entries;
  }
  void know_rows_under(std::int64_t lock_number) {
    const std::lock_guard lock(mutex_);
    known_while_ = lock_number;
  }

 private:
  static void keep_later(std::map<std::string, Snapshot>& kept, const std::map<std::string, Snapshot>& read) {
    for (const auto& [branch, snapshot] : read)
      if (snapshot.revision > kept[branch].revision) kept[branch] = snapshot;
  }

  mutable std::mutex mutex_;
  Snapshots last_;
  std::int64_t known_while_ = 0;  // the number of the lock under which rows were read last
};

struct Shared {
  std::shared_ptr<Connections> connections;
  std::unique_ptr<WikiStore> local;
  SharedSnapshots snapshots;
  VectorCache vectors;
};

// Whether the transaction whose COMMIT was not answered is stored; none where nobody knows.
std::optional<bool> is_committed(Connections& connections, const std::string& mark) {
  const auto deadline = std::chrono::steady_clock::now() + kOutcomePatience;
  for (;;) {
    try {
      std::vector<Statement> statements;
      statements.push_back({.sql = kWaitForWriters});
      statements.push_back({.sql = kHasMark, .values = {mark}});
      return connections.renew()->run(statements).back().flag(0, 0);
    } catch (const utils::Error& error) {
      logger.warning("cannot ask yet what became of the last commit", error);
    }
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(kOutcomePause);
  }
}

// Thread-safety: one thread. Lifetime: the store must outlive it.
class Transaction final : public Operations<StoreTransaction> {
 public:
  Transaction(Shared& shared, std::string attempt)
      : shared_(shared), attempt_(std::move(attempt)), last_(shared.snapshots.get()), lease_(begun()) {}

  ~Transaction() override {
    if (!ended_) take_back();
  }

  std::unique_ptr<StoreTransaction> begin(const std::string& attempt) override {
    throw std::logic_error("a transaction within a transaction: " + attempt);
  }
  std::optional<std::string> damage() override { return std::nullopt; }

  void commit() override {
    ended_ = true;
    with_storage_errors(shared_.connections->shown(), attempt_, [&] {
      try {
        // A COMMIT after a failure that nobody took back would answer with success, and roll back.
        if (is_failed_) throw utils::Error("an earlier failure rolled this transaction back; try again");
        commit_over(*lease_);
      } catch (const ConnectionLost& lost) {
        settle_outcome(lost);
      } catch (...) {
        take_back();
        throw;
      }
    });
    shared_.snapshots.offer(last_);
  }

  // The savepoint goes along with the first statement of `work`, the release of the last one too. Snapshots
  // are a copy: what a write that fails put into them was never stored.
  void run_writing(const std::string& attempt, const Work& work) override {
    with_storage_errors(shared_.connections->shown(), attempt, [&] {
      if (is_failed_) throw utils::Error("an earlier failure rolled this transaction back; try again");
      std::vector<Statement> first = unsent_;
      const bool carries_earlier = !first.empty();
      if (has_savepoint_) first.push_back({.sql = kReleaseSavepoint});
      first.push_back({.sql = kSavepoint});
      Snapshots changed = last_;
      Session session(*lease_, changed, begun_, revision_, std::move(first));
      try {
        work(session);
      } catch (const ServerError&) {
        if (carries_earlier) is_failed_ = true;  // nobody knows which of the statements it was
        if (session.has_begun() && !is_failed_) take_step_back();
        throw;
      } catch (...) {
        if (session.has_begun()) unsent_.clear();
        if (session.has_begun()) take_step_back();
        throw;
      }
      has_savepoint_ = true;
      unsent_ = session.take_unsent();
      revision_ = session.revision();
      last_ = std::move(changed);
    });
  }

 private:
  // A connection from the pool may have been closed by the server since, as by a restart. Nothing was done
  // over it yet, so another one is tried; not for the lock's, whose holder has lost the lock.
  Connections::Lease begun() {
    return with_storage_errors(shared_.connections->shown(), attempt_, [&] {
      auto lease = shared_.connections->lend_for_writing();
      try {
        begin_over(*lease);
      } catch (const ConnectionLost&) {
        if (lease.is_locks()) throw;
        auto renewed = shared_.connections->renew();
        begin_over(*renewed);
        return renewed;
      }
      return lease;
    });
  }

  void begin_over(Connection& connection) {
    std::vector<Statement> statements;
    statements.push_back({.sql = kBegin});
    statements.push_back({.sql = kLockCounter});
    add_reading(statements);
    const std::vector<Result> results = connection.run(statements);
    begun_ = revision_ = results.at(1).number(0, 0);
    mark_ = results.at(1).text(0, 1);
    // A database that was restored from a copy may have a lower revision: what is known is of another one.
    for (const auto& [branch, snapshot] : last_.pages)
      if (snapshot.revision > begun_) return forget_all();
    take_reading(results, 2);
  }

  // What changed of the branches that this process works with comes along: it would be asked for next.
  void add_reading(std::vector<Statement>& statements) const {
    for (const auto& [branch, snapshot] : last_.pages) {
      for (Statement& each : reading_pages(branch, last_)) statements.push_back(std::move(each));
      for (Statement& each : reading_digests(branch, last_)) statements.push_back(std::move(each));
    }
  }
  void take_reading(const std::vector<Result>& results, std::size_t at) {
    constexpr std::size_t kForBranch = 3;
    for (auto& [branch, snapshot] : last_.pages) {
      take_pages(branch, last_, results, at, revision_);
      take_digests(branch, last_, results, at + 2, revision_);
      at += kForBranch;
    }
  }
  void forget_all() {
    last_ = {};
    shared_.snapshots.drop();
    shared_.vectors.drop();
  }

  // The rows that were written come along, as the publication asks for them next.
  void commit_over(Connection& connection) {
    std::vector<Statement> statements = std::exchange(unsent_, {});
    statements.push_back({.sql = kLeaveMark, .values = {mark_}});
    statements.push_back({.sql = kDropOldMarks});
    const std::size_t at = statements.size();
    add_reading(statements);
    statements.push_back({.sql = kCommit});
    take_reading(connection.run(statements), at);
  }

  void settle_outcome(const ConnectionLost& lost) {
    shared_.snapshots.drop();
    const std::optional<bool> is_stored = is_committed(*shared_.connections, mark_);
    if (is_stored == true) return;
    if (is_stored == false) throw utils::Error(std::string(lost.what()) + "; nothing was stored, try again");
    throw StorageError(shared_.connections->shown() + ": cannot tell whether the attempt to " + attempt_ +
                       " succeeded (" + lost.what() +
                       "); see what the page says, or save the same text again");
  }

  void run_reading(const std::string& attempt, const Work& work) override {
    with_storage_errors(shared_.connections->shown(), attempt, [&] {
      Session session(*lease_, last_, begun_, revision_, unsent_);
      try {
        work(session);
      } catch (const ServerError&) {
        is_failed_ = true;
        throw;
      } catch (...) {
        if (session.has_begun()) unsent_.clear();
        throw;
      }
      unsent_ = session.take_unsent();
    });
  }

  // Where the savepoint itself was not made, nothing of the transaction can be saved.
  void take_step_back() {
    try {
      lease_->run_one({.sql = kRollBackToSavepoint});
      has_savepoint_ = true;
    } catch (const utils::Error& error) {
      is_failed_ = true;
      logger.warning("cannot take back a part of a transaction", error);
    }
  }

  // The commit of the whole transaction is synced, so this write is too.
  void run_soon(const std::string& attempt, Statement statement) override {
    run_writing(attempt, [&](Session& session) { session.run_one(std::move(statement)); });
  }

  WikiStore& local() override { return *shared_.local; }
  VectorCache& vector_cache() override { return shared_.vectors; }

  // Throws nothing: called from the destructor and while another failure is handled. What could not be rolled
  // back ends with the connection, which does not go back into the pool.
  void take_back() {
    try {
      if (lease_->is_open()) lease_->run_one({.sql = kRollback});
    } catch (const std::exception& error) {
      logger.warning("cannot roll back the transaction of a save", error);
    }
  }

  Shared& shared_;
  const std::string attempt_;
  std::int64_t begun_ = 0;
  std::int64_t revision_ = 0;
  std::string mark_;
  Snapshots last_;
  Connections::Lease lease_;
  std::vector<Statement> unsent_;  // goes with the next statements
  bool has_savepoint_ = false;
  bool is_failed_ = false;  // the server would only answer that the transaction is aborted
  bool ended_ = false;
};

// Each operation by itself.
//
// Thread-safety: as WikiStore; reads run side by side, each over a connection of its own.
class PostgresqlStore final : public Operations<WikiStore> {
 public:
  explicit PostgresqlStore(std::shared_ptr<Shared> shared) : owned_(std::move(shared)), shared_(*owned_) {}

  std::unique_ptr<StoreTransaction> begin(const std::string& attempt) override {
    return std::make_unique<Transaction>(shared_, attempt);
  }

  // For the holder of the lock one query is enough: its own writes are in the snapshot.
  StoredRows get_wiki_pages(const std::string& branch) override {
    const std::int64_t lock_number = shared_.connections->held_lock(branch);
    if (lock_number == 0) return Operations::get_wiki_pages(branch);
    if (auto rows = shared_.snapshots.rows_under(lock_number, branch)) return *std::move(rows);
    StoredRows rows = Operations::get_wiki_pages(branch);
    shared_.snapshots.know_rows_under(lock_number);
    return rows;
  }

  // The server checks its own files; what is looked at here is the local store.
  std::optional<std::string> damage() override { return shared_.local->damage(); }

 private:
  // A read can be repeated, so a connection that the server has closed since it was last used does no harm.
  void run_reading(const std::string& attempt, const Work& work) override {
    with_storage_errors(shared_.connections->shown(), attempt, [&] {
      try {
        read_over(*shared_.connections->lend(), work);
      } catch (const ConnectionLost&) {
        read_over(*shared_.connections->renew(), work);
      }
    });
  }

  void read_over(Connection& connection, const Work& work) {
    Snapshots last = shared_.snapshots.get();
    Session session(connection, last);
    work(session);
    shared_.snapshots.offer(last);
  }

  void run_writing(const std::string& attempt, const Work& work) override {
    Transaction transaction(shared_, attempt);
    transaction.run_writing(attempt, work);
    transaction.commit();
  }

  // One round trip. The state names the last writer; a crash of the server may leave an older one.
  void run_soon(const std::string& attempt, Statement statement) override {
    with_storage_errors(shared_.connections->shown(), attempt, [&] {
      std::vector<Statement> statements;
      statements.push_back({.sql = kBegin});
      statements.push_back({.sql = kNotSynced});
      statements.push_back(std::move(statement));
      statements.push_back({.sql = kCommit});
      shared_.connections->lend_for_writing()->run(statements);
    });
  }

  WikiStore& local() override { return *shared_.local; }
  VectorCache& vector_cache() override { return shared_.vectors; }

  const std::shared_ptr<Shared> owned_;  // the lock has it too
  Shared& shared_;
};

// The rows of the branch, read with the lock. They are taken into the snapshot that was asked about: a later
// one may be ahead of them.
ServerLock::Passing rows_in_passing(const std::shared_ptr<Shared>& shared, const std::string& branch) {
  const Snapshots asked = shared->snapshots.get();
  ServerLock::Passing passing;
  passing.statements = reading_pages(branch, asked);
  passing.statements.insert(passing.statements.begin(), reading_revision());
  passing.take = [shared, branch, asked](const std::vector<Result>& results, std::size_t at) {
    Snapshots read = asked;
    const std::int64_t revision = results.at(at).number(0, 0);
    if (revision < read.pages[branch].revision)
      return;  // of a database that was restored: read by the next query
    take_pages(branch, read, results, at + 1, revision);
    shared->snapshots.offer(read);
    shared->snapshots.know_rows_under(shared->connections->held_lock(branch));
  };
  return passing;
}

}  // namespace
}  // namespace postgresql

SharedStore open_postgresql_store(const PostgresqlOptions& options, std::unique_ptr<WikiStore> local) {
  using namespace postgresql;
  const auto shared = std::make_shared<Shared>();
  shared->connections =
      std::make_shared<Connections>(Connection::Options{.url = options.url, .program = options.program});
  shared->local = std::move(local);
  with_storage_errors(shared->connections->shown(), "open it",
                      [&] { prepare_schema(*shared->connections->lend()); });
  auto lock = std::make_unique<ServerLock>(
      shared->connections, options.branch, options.lock_timeout,
      [shared, branch = options.branch] { return rows_in_passing(shared, branch); });
  return {.store = std::make_unique<PostgresqlStore>(shared),
          .lock = std::move(lock),
          .turns = std::make_unique<ServerTurns>(shared->connections, options.branch)};
}

}  // namespace ossilar::store
