#include "ossilar/store/sqlite_store.h"

#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Transaction.h>

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <stdexcept>
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
constexpr const char* kOwnLists = "SELECT name, hash FROM own_lists WHERE branch = ?1";
constexpr const char* kPutOwnList =
    "INSERT INTO own_lists VALUES (?1, ?2, ?3) ON CONFLICT DO UPDATE SET hash = excluded.hash"
    " WHERE hash != excluded.hash";
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

// Makes the stored digests those in `digests`; gives the revision that they then have.
std::int64_t write_differences(Connection& connection, const std::string& branch, const Snapshot& stored,
                               const PageDigests& digests) {
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

// What `work` gives when `run` runs it.
template <class Work, class Run>
Result<Work> result_of(Work& work, Run run) {
  if constexpr (std::is_void_v<Result<Work>>) {
    run([&](Connection& connection, Snapshots& last) { ask(work, connection, last); });
  } else {
    std::optional<Result<Work>> result;
    run([&](Connection& connection, Snapshots& last) { result.emplace(ask(work, connection, last)); });
    return *std::move(result);
  }
}

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

// Every operation once. How it runs, and when it is on disk, is for SqliteStore and SqliteTransaction to
// say: the one runs each in a transaction of its own, the other as a step of its one transaction.
template <class Interface>
class SqliteOperations : public Interface {
 public:
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

  void restate_page(const std::string& branch, const std::string& page_id, const std::string& content_hash,
                    const std::vector<Map>& citations) override {
    write("store the page " + page_id, [&](Connection& connection) {
      restate_row(connection, branch, page_id, content_hash, citations, next_revision(connection));
    });
  }

  void upsert_wiki_state(const std::string& branch, const WikiStateFields& fields) override {
    write_soon("store the state of the branch " + branch, [&](Connection& connection) {
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
      const std::size_t most = std::min(due - most_left, words_together());
      write(attempt, [&](Connection& connection) { index_due_words(connection, most); });
    }
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
    write("store the digests of the branch " + branch, [&](Connection& connection, Snapshots& last) {
      Snapshot& known = last.digests[branch];
      read_digests(connection, known, branch);
      known.revision = write_differences(connection, branch, known, digests);
      known.entries = digests;
      write_marks(connection, branch, stale);
    });
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

  std::map<std::string, std::string> own_lists(const std::string& branch) override {
    return read("read the lists of the branch " + branch, [&](Connection& connection) {
      std::map<std::string, std::string> hashes;
      Query rows(connection, kOwnLists, branch);
      while (rows.next()) hashes.emplace(rows.text(0), rows.text(1));
      return hashes;
    });
  }

  void note_own_lists(const std::string& branch, const std::map<std::string, std::string>& hashes) override {
    write_soon("note the lists of the branch " + branch, [&](Connection& connection) {
      for (const auto& [name, hash] : hashes) Query(connection, kPutOwnList, branch, name, hash).run();
    });
  }

  void source_records(const WikiStore::TakeRecord& take) override {
    read("read the source index", [&](Connection& connection) {
      Query rows(connection, kRecords);
      while (rows.next()) take(rows.view(0), rows.view(1));
    });
  }

  void update_source_records(const std::map<std::string, std::optional<std::string>>& changes) override {
    write("store the source index", [&](Connection& connection) { write_records(connection, changes); });
  }

 protected:
  using Work = std::function<void(Connection& connection, Snapshots& last)>;

  // Runs `work` on what is stored at one moment.
  virtual void run_reading(const std::string& attempt, const Work& work) = 0;
  // Runs `work`, which writes all that it writes or, when it fails, nothing.
  virtual void run_writing(const std::string& attempt, const Work& work) = 0;
  // The same, and what it writes is on disk with the next write that is, at the latest.
  virtual void run_writing_soon(const std::string& attempt, const Work& work) = 0;
  // Pages whose words are indexed in one transaction.
  virtual std::size_t words_together() const = 0;

  template <class Ask>
  Result<Ask> read(const std::string& attempt, Ask work) {
    return result_of(work, [&](const Work& run) { run_reading(attempt, run); });
  }
  template <class Ask>
  void write_soon(const std::string& attempt, Ask work) {
    run_writing_soon(attempt, [&](Connection& connection, Snapshots& last) { ask(work, connection, last); });
  }
  template <class Ask>
  Result<Ask> write(const std::string& attempt, Ask work) {
    return result_of(work, [&](const Work& run) { run_writing(attempt, run); });
  }
};

// One connection writes and one reads, each under a mutex of its own, so that drafts read while a commit
// waits for the disk. A thread that holds both took the writer's first. A SqliteTransaction holds the
// writer's from its begin to its end.
//
// The snapshots are what was read last, and are brought up to date by revisions. They belong to the reader; a
// SqliteTransaction has its own, which become the reader's when it is committed. After a write that failed,
// whose outcome only the file knows, they are dropped.
class SqliteStore final : public SqliteOperations<WikiStore> {
 public:
  explicit SqliteStore(const std::filesystem::path& file)
      : file_(file), writer_(open_database(file)), reader_(file, SQLite::OPEN_READONLY) {}

  std::unique_ptr<StoreTransaction> begin(const std::string& attempt) override;

  // They save reading what can be read again: while another process writes, they are not stored.
  void update_source_records(const std::map<std::string, std::optional<std::string>>& changes) override {
    if (changes.empty() || !is_writable_soon("store the source index")) return;
    SqliteOperations::update_source_records(changes);
  }

 private:
  friend class SqliteTransaction;

  void run_reading(const std::string& attempt, const Work& work) override {
    const std::lock_guard lock(reader_mutex_);
    with_storage_errors(file_, attempt, [&] {
      reader_.require_in_place();
      const SQLite::Transaction snapshot(reader_.database());  // its end, a rollback, changes nothing
      work(reader_, last_);
    });
  }

  // A transaction locks at its begin: one that reads first and locks later fails at once when another process
  // has written in between. A commit that fails may have reached the file: who opens it next may find it
  // made.
  void run_writing(const std::string& attempt, const Work& work) override {
    const std::lock_guard lock(writer_mutex_);
    write_locked(attempt, work);
  }

  void write_locked(const std::string& attempt, const Work& work) {
    Snapshots changed = snapshots();
    std::string doing = attempt;
    try {
      with_storage_errors(file_, doing, [&] {
        writer_.require_in_place();
        SQLite::Transaction transaction(writer_.database(), SQLite::TransactionBehavior::IMMEDIATE);
        work(writer_, changed);
        doing = unsure_of(attempt);
        transaction.commit();
      });
    } catch (...) {
      set_snapshots({});
      throw;
    }
    set_snapshots(std::move(changed));
  }

  void run_writing_soon(const std::string& attempt, const Work& work) override {
    const std::lock_guard lock(writer_mutex_);
    const NotSynced meanwhile(writer_);
    write_locked(attempt, work);
  }

  std::size_t words_together() const override { return kWordsTogether; }

  // Whether nobody else is in the midst of writing, or is done within a moment.
  bool is_writable_soon(const std::string& attempt) {
    constexpr int kMomentMs = 500;
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

  Snapshots snapshots() {
    const std::lock_guard reading(reader_mutex_);
    return last_;
  }
  void set_snapshots(Snapshots snapshots) {
    const std::lock_guard reading(reader_mutex_);
    last_ = std::move(snapshots);
  }

  const std::filesystem::path file_;
  std::mutex writer_mutex_;
  Connection writer_;
  std::mutex reader_mutex_;
  Connection reader_;
  Snapshots last_;  // guarded by reader_mutex_
};

// One transaction of the connection that writes; it reads by that connection too, and so sees its own writes.
// Each write is a savepoint.
class SqliteTransaction final : public SqliteOperations<StoreTransaction> {
 public:
  SqliteTransaction(SqliteStore& store, std::string attempt)
      : store_(store), attempt_(std::move(attempt)), writing_(store.writer_mutex_) {
    with_storage_errors(store_.file_, attempt_, [&] {
      store_.writer_.require_in_place();
      Query(store_.writer_, "BEGIN IMMEDIATE").run();
    });
    last_ = store_.snapshots();
  }

  ~SqliteTransaction() override {
    if (!ended_) take_back();
  }

  void commit() override {
    ended_ = true;
    std::string doing = attempt_;
    try {
      with_storage_errors(store_.file_, doing, [&] {
        require_open();
        doing = SqliteStore::unsure_of(attempt_);
        Query(store_.writer_, "COMMIT").run();
      });
    } catch (...) {
      take_back();
      store_.set_snapshots({});
      throw;
    }
    store_.set_snapshots(std::move(last_));
  }

  std::unique_ptr<StoreTransaction> begin(const std::string& attempt) override {
    throw std::logic_error("a transaction within a transaction: " + attempt);
  }

 private:
  void run_reading(const std::string& attempt, const Work& work) override {
    with_storage_errors(store_.file_, attempt, [&] { work(store_.writer_, last_); });
  }

  void run_writing(const std::string& attempt, const Work& work) override {
    with_storage_errors(store_.file_, attempt, [&] {
      require_open();
      Step step(store_.writer_);
      Snapshots changed = last_;  // what is taken back was never read
      work(store_.writer_, changed);
      step.keep();
      last_ = std::move(changed);
    });
  }

  void run_writing_soon(const std::string& attempt, const Work& work) override { run_writing(attempt, work); }

  std::size_t words_together() const override { return std::numeric_limits<std::size_t>::max(); }

  bool is_open() { return sqlite3_get_autocommit(store_.writer_.database().getHandle()) == 0; }

  // SQLite itself ends a transaction after some failures, of a full disk for one.
  void require_open() {
    if (!is_open()) throw utils::Error("what was written before was taken back by a failure; try again");
  }

  void take_back() {
    try {
      if (is_open()) Query(store_.writer_, "ROLLBACK").run();
    } catch (const std::exception& error) {
      logger.warning("what a save wrote could not be taken back", error);
    }
  }

  SqliteStore& store_;
  const std::string attempt_;
  const std::unique_lock<std::mutex> writing_;
  Snapshots last_;
  bool ended_ = false;
};

std::unique_ptr<StoreTransaction> SqliteStore::begin(const std::string& attempt) {
  return std::make_unique<SqliteTransaction>(*this, attempt);
}

}  // namespace

std::unique_ptr<WikiStore> open_sqlite_store(const std::filesystem::path& file) {
  return with_storage_errors(
      file, "open it", [&]() -> std::unique_ptr<WikiStore> { return std::make_unique<SqliteStore>(file); });
}

}  // namespace ossilar::store
