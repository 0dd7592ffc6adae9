#include "ossilar/store/sqlite_store.h"

#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Transaction.h>

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

#include "ossilar/store/connection.h"
#include "ossilar/store/passages.h"
#include "ossilar/store/rows.h"
#include "ossilar/store/schema.h"
#include "ossilar/store/word_index.h"
#include "ossilar/utils/logging.h"

namespace ossilar::store {
namespace {

const utils::Logger logger("ossilar.store");

constexpr const char* kNextRevision = "UPDATE counter SET revision = revision + 1 RETURNING revision";
constexpr const char* kClearMark = "DELETE FROM stale_marks WHERE page_key = ?1";
constexpr const char* kMark =
    "INSERT INTO stale_marks SELECT page_key, ?3 FROM pages WHERE branch = ?1 AND page_id = ?2"
    " ON CONFLICT DO UPDATE SET reason = excluded.reason WHERE reason != excluded.reason";
constexpr const char* kMarks =
    "SELECT page_id, reason FROM stale_marks JOIN pages USING (page_key) WHERE branch = ?1";
constexpr const char* kChangedDigests =
    "SELECT revision, page_id, digest FROM digests WHERE branch = ?1 AND revision > ?2 ORDER BY revision";
constexpr const char* kPutDigest =
    "INSERT INTO digests VALUES (?1, ?2, ?3, ?4) ON CONFLICT (branch, page_id)"
    " DO UPDATE SET digest = excluded.digest, revision = excluded.revision";
constexpr const char* kRemoveDigest =
    "UPDATE digests SET digest = NULL, revision = ?3 WHERE branch = ?1 AND page_id = ?2";
constexpr const char* kPutState =
    "INSERT INTO wiki_state VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7) ON CONFLICT (branch) DO UPDATE SET"
    " last_built_at = excluded.last_built_at, last_commit = excluded.last_commit,"
    " changed_since_build = excluded.changed_since_build, model = excluded.model,"
    " page_count = excluded.page_count, manifest_hash = excluded.manifest_hash";
constexpr const char* kState =
    "SELECT last_built_at, last_commit, changed_since_build, model, page_count, manifest_hash"
    " FROM wiki_state WHERE branch = ?1";
constexpr const char* kRecords = "SELECT path, record FROM source_records";
// A record keeps its place, and so all come nearly in the order of their paths.
constexpr const char* kPutRecord =
    "INSERT INTO source_records VALUES (?1, ?2) ON CONFLICT DO UPDATE SET record = excluded.record";
constexpr const char* kRemoveRecord = "DELETE FROM source_records WHERE path = ?1";

constexpr const char* kPageKey = "SELECT page_key FROM pages WHERE branch = ?1 AND page_id = ?2";
constexpr const char* kBuildCache = "SELECT build_cache FROM pages WHERE branch = ?1 AND page_id = ?2";
// https://www.sqlite.org/pragma.html#pragma_integrity_check, and https://www.sqlite.org/fts5.html, 6.4: a
// statement of the form of a write that reads only.
constexpr const char* kStructure = "PRAGMA integrity_check(1)";
constexpr const char* kWordsStructure = "INSERT INTO words (words) VALUES ('integrity-check')";
constexpr const char* kReferences = "PRAGMA foreign_key_check";
constexpr const char* kUnindexed =
    "SELECT (SELECT count(*) FROM chunks WHERE page_key NOT IN (SELECT page_key FROM due_words))"
    " - (SELECT count(*) FROM words"
    " WHERE rowid >> " OSSILAR_POSITION_BITS " NOT IN (SELECT page_key FROM due_words))";
constexpr const char* kTables =
    "SELECT format('SELECT * FROM \"%w\"', name) FROM sqlite_schema"
    " WHERE type = 'table' AND name NOT LIKE 'words%'";
constexpr const char* kCutVectors =
    "SELECT hash FROM vectors JOIN passages USING (passage_key)"
    " WHERE length(vector) = 0 OR length(vector) % 4 != 0";

// Pages whose words are indexed in one transaction, which others wait for.
constexpr std::size_t kWordsTogether = 16;

// Of the write-ahead log, a save writes some fifty. From the first number on, who has the time moves them
// into the database; from the second on a commit does so, which then takes several times as long.
constexpr int kManyLogPages = 1000;
constexpr int kMostLogPages = 4000;

// JSON by where it is stored.
struct Shape {
  const char* table;
  const char* text;
  const char* type;
};
constexpr std::array kShapes{
    Shape{"pages", "source_files", "array"}, Shape{"pages", "source_hashes", "object"},
    Shape{"pages", "symbols", "array"},      Shape{"pages", "related_pages", "array"},
    Shape{"pages", "citations", "array"},    Shape{"pages", "nullif(build_cache, '')", "object"},
    Shape{"chunks", "citations", "array"},   Shape{"digests", "digest", "object"}};

std::int64_t next_revision(Connection& connection) {
  Query query(connection, kNextRevision);
  query.next();
  return query.number(0);
}

void write_marks(Connection& connection, const std::string& branch,
                 const std::map<std::string, std::string>& reasons) {
  for (const auto& [page_id, reason] : reasons) Query(connection, kMark, branch, page_id, reason).run();
}

void write_records(Connection& connection, const std::map<std::string, std::optional<std::string>>& changes) {
  for (const auto& [path, record] : changes) {
    if (record) {
      Query(connection, kPutRecord, path, *record).run();
    } else {
      Query(connection, kRemoveRecord, path).run();
    }
  }
}

std::optional<std::int64_t> key_of(Connection& connection, const std::string& branch,
                                   const std::string& page_id) {
  Query query(connection, kPageKey, branch, page_id);
  if (!query.next()) return std::nullopt;
  return query.number(0);
}

// Throws DamagedError for a text of the table that is not UTF-8, which Query::text() does not let through.
void require_texts(Connection& connection, const std::string& all_rows) {
  SQLite::Statement rows(connection.database(), all_rows);
  while (rows.executeStep()) {
    for (int column = 0; column < rows.getColumnCount(); ++column) {
      const SQLite::Column value = rows.getColumn(column);
      if (value.isText()) require_utf8(value.getString());
    }
  }
}

bool holds_shape(Connection& connection, const Shape& shape) {
  const std::string text = shape.text;
  SQLite::Statement others(connection.database(), std::string("SELECT 1 FROM ") + shape.table + " WHERE " +
                                                      text + " IS NOT NULL AND iif(json_valid(" + text +
                                                      "), json_type(" + text + ") != ?1, TRUE)");
  others.bind(1, shape.type);
  return !others.executeStep();
}

std::optional<std::string> first_damage(Connection& connection) {
  Query structure(connection, kStructure);
  if (structure.next() && structure.text(0) != "ok") return structure.text(0);
  if (const auto missing = missing_from_schema(connection))
    return "the " + *missing + " is not as it was made";
  Query(connection, kWordsStructure).run();
  Query references(connection, kReferences);
  if (references.next()) return "the table " + references.text(0) + " refers to what is not there";
  Query words(connection, kUnindexed);
  if (words.next() && words.number(0) != 0) return "the words do not belong to the chunks";
  Query tables(connection, kTables);
  while (tables.next()) require_texts(connection, tables.text(0));
  Query cut(connection, kCutVectors);
  if (cut.next()) return "the vector of the passage " + cut.text(0) + " is cut off";
  for (const Shape& shape : kShapes) {
    if (!holds_shape(connection, shape)) {
      return std::string("what is stored in ") + shape.table + " cannot be read";
    }
  }
  return std::nullopt;
}

// What was read last of one kind of rows of a branch, and the revision up to which it was read.
struct Snapshot {
  utils::SnapshotMap<Map> entries;
  std::int64_t revision = 0;
};

// Snapshots by branch.
struct Snapshots {
  std::map<std::string, Snapshot> pages;
  std::map<std::string, Snapshot> digests;
};

// Removals first: a page that came back after its removal has a row.
StoredRows read_pages(Connection& connection, Snapshot& last, const std::string& branch) {
  Snapshot next = last;
  Query removed(connection, kRemovedPages, branch, last.revision);
  while (removed.next()) {
    next.entries.erase(removed.text(1));
    next.revision = removed.number(0);
  }
  Query rows(connection, kChangedPages, branch, last.revision);
  while (rows.next()) {
    next.entries.set(page_id_of(rows), page_row(rows));
    next.revision = std::max(next.revision, rows.number(0));
  }
  last = next;
  return next.entries;
}

Snapshot read_digests(Connection& connection, Snapshot& last, const std::string& branch) {
  Snapshot next = last;
  Query rows(connection, kChangedDigests, branch, next.revision);
  while (rows.next()) {
    if (rows.is_null(2)) {
      next.entries.erase(rows.text(1));
    } else {
      next.entries.set(rows.text(1), read_json(rows.text(2), "the digest of " + rows.text(1)));
    }
    next.revision = rows.number(0);
  }
  return last = next;
}

// What `Work` gives that asks a connection, or a connection and its snapshots.
template <class Work>
using Result = typename std::conditional_t<std::is_invocable_v<Work, Connection&, Snapshots&>,
                                           std::invoke_result<Work, Connection&, Snapshots&>,
                                           std::invoke_result<Work, Connection&>>::type;

template <class Work>
Result<Work> ask(Work& work, Connection& connection, Snapshots& last) {
  if constexpr (std::is_invocable_v<Work, Connection&, Snapshots&>) {
    return work(connection, last);
  } else {
    return work(connection);
  }
}

// What `work` gives, after `then` was called.
template <class Work, class Then>
std::invoke_result_t<Work> and_then(Work work, Then then) {
  if constexpr (std::is_void_v<std::invoke_result_t<Work>>) {
    work();
    then();
  } else {
    auto result = work();
    then();
    return result;
  }
}

// A part of a group's transaction that can be taken back alone.
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

// One connection writes and one reads, each under a mutex of its own, so that drafts read while a commit
// waits for the disk. A thread that holds both took the writer's first. Within a group the group's thread
// reads by the connection that writes, and holds its mutex from the group's begin to its end.
//
// The snapshots belong to the reader; a group has its own, which become the reader's when it is committed.
// They are only what a read gave or a commit has made so; after a write that failed, whose outcome only the
// file knows, they are dropped.
class SqliteStore final : public WikiStore {
 public:
  explicit SqliteStore(const std::filesystem::path& file)
      : file_(file), writer_(open_database(file)), reader_(file, SQLite::OPEN_READONLY) {
    sqlite3_wal_hook(writer_.database().getHandle(), &SqliteStore::committed, this);
  }

  std::unique_ptr<WriteGroup> begin_group(const std::string& attempt) override {
    return std::make_unique<Group>(*this, attempt);
  }

  std::int64_t upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                const std::string& title, const PageFields& fields) override {
    return write("store the page " + page_id, [&](Connection& connection) {
      const std::int64_t key =
          write_page(connection, branch, page_id, title, fields, next_revision(connection));
      Query(connection, kClearMark, key).run();
      return key;
    });
  }

  std::int64_t upsert_keeping_mark(const std::string& branch, const std::string& page_id,
                                   const std::string& title, const PageFields& fields) override {
    return write("store the page " + page_id, [&](Connection& connection) {
      return write_page(connection, branch, page_id, title, fields, next_revision(connection));
    });
  }

  void upsert_wiki_state(const std::string& branch, const WikiStateFields& fields) override {
    write("store the state of the branch " + branch, [&](Connection& connection) {
      Query(connection, kPutState, branch, fields.last_built_at, fields.last_commit,
            fields.changed_since_build, fields.model, fields.page_count, fields.manifest_hash)
          .run();
    });
  }

  StoredRows get_wiki_pages(const std::string& branch) override {
    return read("read the pages of the branch " + branch, [&](Connection& connection, Snapshots& last) {
      return read_pages(connection, last.pages[branch], branch);
    });
  }

  std::optional<std::string> damage() override {
    return write("read all of it", [](Connection& connection) { return first_damage(connection); });
  }

  std::optional<std::int64_t> page_key(const std::string& branch, const std::string& page_id) override {
    return read("look for the page " + page_id,
                [&](Connection& connection) { return key_of(connection, branch, page_id); });
  }

  std::optional<std::string> build_cache(const std::string& branch, const std::string& page_id) override {
    return read("read the page " + page_id, [&](Connection& connection) {
      Query row(connection, kBuildCache, branch, page_id);
      return row.next() ? std::optional(row.text(0)) : std::nullopt;
    });
  }

  void remove_page(const std::string& branch, const std::string& page_id) override {
    write("remove the page " + page_id, [&](Connection& connection) {
      const auto key = key_of(connection, branch, page_id);
      if (!key) return;
      replace_chunks(connection, *key, {}, {});
      store::index_words(connection, *key);
      remove_row(connection, branch, page_id, next_revision(connection));
    });
  }

  SharedPassages shared_passages(const std::string& branch, const std::string& page_id,
                                 const std::string& model) override {
    return read("read the passages of the page " + page_id, [&](Connection& connection) {
      return read_shared_passages(connection, branch, page_id, model);
    });
  }

  std::map<std::string, Vector> vectors(const std::string& model,
                                        const std::vector<std::string>& hashes) override {
    return read("read vectors of the model " + model,
                [&](Connection& connection) { return read_vectors(connection, model, hashes); });
  }

  void store_chunks(std::int64_t page_key, const std::vector<Map>& chunks,
                    const PassageHashes& shared_before) override {
    write("store the chunks of the page with the key " + std::to_string(page_key),
          [&](Connection& connection) {
            replace_chunks(connection, page_key, chunks, shared_before);
            make_words_due(connection, page_key);
          });
  }

  std::vector<Map> chunks(const std::string& branch, const std::string& page_id) override {
    return read("read the chunks of the page " + page_id,
                [&](Connection& connection) { return read_chunks(connection, branch, page_id); });
  }

  std::optional<std::string> other_model(const std::string& model) override {
    return read("look for other models than " + model,
                [&](Connection& connection) { return read_other_model(connection, model); });
  }

  std::size_t count_without_vector(const std::string& model) override {
    return read("count passages without a vector of " + model,
                [&](Connection& connection) { return count_lacking(connection, model); });
  }

  std::vector<PassageText> passages_without_vector(const std::string& model, const std::string& after,
                                                   std::size_t limit) override {
    return read("read passages without a vector of " + model,
                [&](Connection& connection) { return read_lacking(connection, model, after, limit); });
  }

  void add_vectors(const std::string& model, const std::map<std::string, Vector>& vectors) override {
    write("store vectors of " + model,
          [&](Connection& connection) { keep_vectors(connection, model, vectors); });
  }

  bool keep_model(const std::string& model) override {
    return write("drop vectors of other models than " + model,
                 [&](Connection& connection) { return drop_other_models(connection, model); });
  }

  void index_waiting_words(std::size_t most_left) override {
    const std::string attempt = "index the words of pages";
    for (;;) {
      const std::size_t due = read(attempt, count_due_words);
      if (due <= most_left) return;
      const std::size_t most = in_group() ? due : std::min(due - most_left, kWordsTogether);
      write(attempt, [&](Connection& connection) { index_due_words(connection, most); });
    }
  }

  void checkpoint() override {
    if (log_pages_ < kManyLogPages) return;
    const std::lock_guard lock(checkpointer_mutex_);
    with_storage_errors(file_, "move the log into it", [&] {
      if (!checkpointer_) {
        checkpointer_.emplace(file_, SQLite::OPEN_READWRITE);
        checkpointer_->database().exec("PRAGMA synchronous = FULL");
      }
      checkpointer_->require_in_place();
      checkpointer_->database().exec("PRAGMA wal_checkpoint(PASSIVE)");
    });
  }

  std::vector<FoundPassage> match_words(const std::string& branch, const std::string& words,
                                        const PassageFilter& filter, std::size_t limit) override {
    try {
      index_waiting_words(0);
    } catch (const StorageError& error) {
      logger.warning("pages that were saved last are not found by their words", error);
    }
    return read("search the words of the branch " + branch,
                [&](Connection& connection) { return find_words(connection, branch, words, filter, limit); });
  }

  std::vector<FoundPassage> nearest(const std::string& branch, const std::string& model, const Vector& query,
                                    const PassageFilter& filter, std::size_t limit) override {
    return read("search the vectors of the branch " + branch, [&](Connection& connection) {
      return find_nearest(connection, branch, {.model = model, .vector = query}, filter, limit);
    });
  }

  PageDigests load_digests(const std::string& branch) override {
    return read("read the digests of the branch " + branch, [&](Connection& connection, Snapshots& last) {
      return read_digests(connection, last.digests[branch], branch).entries;
    });
  }

  // What was persisted becomes the snapshot that the next call compares with, so that a caller who changes
  // one digest of many and persists again shares all others with it.
  void persist_digests(const std::string& branch, const PageDigests& digests,
                       const std::map<std::string, std::string>& stale) override {
    Snapshot persisted{.entries = digests};
    write(
        "store the digests of the branch " + branch,
        [&](Connection& connection) {
          Snapshot stored = known_digests(branch);
          stored = read_digests(connection, stored, branch);  // nobody writes meanwhile
          persisted.revision = write_differences(connection, branch, stored, digests);
          write_marks(connection, branch, stale);
        },
        [&](Snapshots& last) { last.digests[branch] = std::move(persisted); });
  }

  void mark_stale(const std::string& branch, const std::map<std::string, std::string>& reasons) override {
    if (reasons.empty()) return;
    write("mark pages of the branch " + branch + " as stale",
          [&](Connection& connection) { write_marks(connection, branch, reasons); });
  }

  std::map<std::string, std::string> stale_marks(const std::string& branch) override {
    return read("read the stale marks of the branch " + branch, [&](Connection& connection) {
      std::map<std::string, std::string> marks;
      Query rows(connection, kMarks, branch);
      while (rows.next()) marks.emplace(rows.text(0), rows.text(1));
      return marks;
    });
  }

  std::optional<WikiStateFields> wiki_state(const std::string& branch) override {
    return read("read the state of the branch " + branch, [&](Connection& connection) {
      Query row(connection, kState, branch);
      if (!row.next()) return std::optional<WikiStateFields>();
      return std::optional<WikiStateFields>({.last_built_at = row.text(0),
                                             .last_commit = row.text(1),
                                             .changed_since_build = row.number(2),
                                             .model = row.text(3),
                                             .page_count = row.number(4),
                                             .manifest_hash = row.text(5)});
    });
  }

  void source_records(const TakeRecord& take) override {
    read("read the source index", [&](Connection& connection) {
      Query rows(connection, kRecords);
      while (rows.next()) take(rows.view(0), rows.view(1));
    });
  }

  void update_source_records(const std::map<std::string, std::optional<std::string>>& changes) override {
    const std::string attempt = "store the source index";
    if (changes.empty() || !is_writable_soon(attempt)) return;
    write(attempt, [&](Connection& connection) { write_records(connection, changes); });
  }

 private:
  class Group final : public WriteGroup {
   public:
    Group(SqliteStore& store, std::string attempt)
        : store_(store), attempt_(std::move(attempt)), writing_(store.writer_mutex_) {
      store_.begin_group_locked(attempt_);
    }
    ~Group() override {
      if (!ended_) store_.end_group_locked();
    }
    void commit() override {
      ended_ = true;
      store_.commit_group_locked(attempt_);
    }

   private:
    SqliteStore& store_;
    const std::string attempt_;
    const std::unique_lock<std::mutex> writing_;
    bool ended_ = false;
  };

  // https://www.sqlite.org/c3ref/wal_hook.html; in the place of SQLite's own, which moves at a thousand
  // pages. What is not moved stays in the log.
  static int committed(void* store, sqlite3* database, const char* name, int log_pages) {
    static_cast<SqliteStore*>(store)->log_pages_ = log_pages;
    if (log_pages >= kMostLogPages)
      sqlite3_wal_checkpoint_v2(database, name, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    return SQLITE_OK;
  }

  bool in_group() const { return grouping_ == std::this_thread::get_id(); }

  // Runs `work` in one read transaction.
  template <class Work>
  Result<Work> read(const std::string& attempt, Work work) {
    if (in_group()) return with_storage_errors(file_, attempt, [&] { return ask(work, writer_, grouped_); });
    const std::lock_guard lock(reader_mutex_);
    return with_storage_errors(file_, attempt, [&] {
      reader_.require_in_place();
      const SQLite::Transaction snapshot(reader_.database());  // its end, a rollback, changes nothing
      return ask(work, reader_, last_);
    });
  }

  // Runs `work` in one write transaction, which is on disk at the return, or as one step of the group's;
  // `written` tells the snapshots then. A transaction locks at its begin: one that reads first and locks
  // later fails at once when another process has written in between.
  template <class Work, class Written>
  Result<Work> write(const std::string& attempt, Work work, Written written) {
    if (in_group()) return write_step(attempt, work, written);
    const std::lock_guard lock(writer_mutex_);
    return write_locked(attempt, work, written);
  }

  template <class Work>
  Result<Work> write(const std::string& attempt, Work work) {
    return write(attempt, work, [](Snapshots&) {});
  }

  // A commit that fails may have reached the file: who opens it next may find it made.
  template <class Work, class Written>
  Result<Work> write_locked(const std::string& attempt, Work& work, Written& written) {
    std::string doing = attempt;
    try {
      return with_storage_errors(file_, doing, [&] {
        writer_.require_in_place();
        SQLite::Transaction transaction(writer_.database(), SQLite::TransactionBehavior::IMMEDIATE);
        return and_then([&] { return work(writer_); },
                        [&] {
                          doing = unsure_of(attempt);
                          transaction.commit();
                          const std::lock_guard reading(reader_mutex_);
                          written(last_);
                        });
      });
    } catch (...) {
      forget_snapshots();
      throw;
    }
  }

  template <class Work, class Written>
  Result<Work> write_step(const std::string& attempt, Work& work, Written& written) {
    return with_storage_errors(file_, attempt, [&] {
      require_group();
      Step step(writer_);
      return and_then([&] { return work(writer_); },
                      [&] {
                        step.keep();
                        written(grouped_);
                      });
    });
  }

  // Whether nobody else is in the midst of writing, or is done within a moment.
  bool is_writable_soon(const std::string& attempt) {
    constexpr int kMomentMs = 500;
    if (in_group()) return true;
    const std::lock_guard lock(writer_mutex_);
    return with_storage_errors(file_, attempt, [&] {
      SQLite::Database& database = writer_.database();
      database.setBusyTimeout(kMomentMs);
      const int code = database.tryExec("BEGIN IMMEDIATE");
      database.setBusyTimeout(kBusyTimeoutMs);
      if (code == SQLITE_OK) database.exec("ROLLBACK");
      if (code != SQLITE_OK && code != SQLITE_BUSY) throw SQLite::Exception(database.getHandle(), code);
      return code == SQLITE_OK;
    });
  }

  static std::string unsure_of(const std::string& attempt) {
    return "say whether it could " + attempt + " (ossilar check can)";
  }

  void begin_group_locked(const std::string& attempt) {
    with_storage_errors(file_, attempt, [&] {
      writer_.require_in_place();
      Query(writer_, "BEGIN IMMEDIATE").run();
    });
    {
      const std::lock_guard reading(reader_mutex_);
      grouped_ = last_;
    }
    grouping_ = std::this_thread::get_id();
  }

  // SQLite itself ends a transaction after some failures, of a full disk for one.
  void require_group() {
    if (sqlite3_get_autocommit(writer_.database().getHandle()) != 0)
      throw utils::Error("what was written before was taken back by a failure; try again");
  }

  void commit_group_locked(const std::string& attempt) {
    std::string doing = attempt;
    try {
      with_storage_errors(file_, doing, [&] {
        require_group();
        doing = unsure_of(attempt);
        Query(writer_, "COMMIT").run();
      });
    } catch (...) {
      end_group_locked();
      forget_snapshots();
      throw;
    }
    grouping_ = std::thread::id();
    const std::lock_guard reading(reader_mutex_);
    last_ = std::move(grouped_);
  }

  void end_group_locked() {
    grouping_ = std::thread::id();
    grouped_ = {};
    try {
      if (sqlite3_get_autocommit(writer_.database().getHandle()) == 0) Query(writer_, "ROLLBACK").run();
    } catch (const std::exception& error) {
      logger.warning("what a save wrote could not be taken back", error);
    }
  }

  void forget_snapshots() {
    const std::lock_guard lock(reader_mutex_);
    last_ = {};
  }

  // The digests of the branch as they were read last.
  Snapshot known_digests(const std::string& branch) {
    if (in_group()) return grouped_.digests[branch];
    const std::lock_guard lock(reader_mutex_);
    return last_.digests[branch];
  }

  // Makes the stored digests those in `digests`; gives the revision that they then have.
  static std::int64_t write_differences(Connection& connection, const std::string& branch,
                                        const Snapshot& stored, const PageDigests& digests) {
    std::int64_t revision = 0;
    const auto revision_of_change = [&] {
      return revision = revision != 0 ? revision : next_revision(connection);
    };
    for_each_difference(stored.entries, digests,
                        [&](const std::string& page_id, const Map* before, const Map* after) {
                          if (after == nullptr) {
                            Query(connection, kRemoveDigest, branch, page_id, revision_of_change()).run();
                          } else if (before == nullptr || *before != *after) {
                            Query(connection, kPutDigest, branch, page_id,
                                  stored_json(*after, "the digest of " + page_id), revision_of_change())
                                .run();
                          }
                        });
    return revision != 0 ? revision : stored.revision;
  }

  const std::filesystem::path file_;
  std::atomic<int> log_pages_ = 0;
  std::mutex writer_mutex_;
  Connection writer_;
  std::mutex checkpointer_mutex_;
  std::optional<Connection> checkpointer_;
  std::mutex reader_mutex_;
  Connection reader_;
  Snapshots last_;
  std::atomic<std::thread::id> grouping_{};  // the thread whose group it is, while there is one
  Snapshots grouped_;                        // that thread's
};

}  // namespace

std::unique_ptr<WikiStore> open_sqlite_store(const std::filesystem::path& file) {
  return with_storage_errors(
      file, "open it", [&]() -> std::unique_ptr<WikiStore> { return std::make_unique<SqliteStore>(file); });
}

}  // namespace ossilar::store
