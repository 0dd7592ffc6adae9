// Opening keeps a foreign file untouched by its order: look at the header without a query, ask for the
// version in a read transaction, migrate, and only then switch to the write-ahead log.
//
// The plain way, to ask PRAGMA user_version right after opening, already changes a file that is not ours: the
// first query may roll back what its owner left half-written, and closing may move its log into it.
#include "ossilar/store/sqlite/schema.h"

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>

#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/store/sqlite/word_index.h"
#include "ossilar/utils/error.h"

namespace ossilar::store {
namespace {

// Puts the files that a row of `pages` names into rests_on: those of its citations, of the claims that it has
// lost, and of its sources. A value that is no JSON names none; damage.cc reports it. `row` is "new" in a
// trigger, and "pages" for all, which then are `from`. `known` says which rows of rests_on to compare with:
// OR IGNORE would not do, as an upsert that fires a trigger has its own rule for conflicts used in there.
#define OSSILAR_NOTE_PATHS(row, from, known)                                                      \
  "INSERT INTO rests_on SELECT value ->> 'path', " row ".page_key FROM " from                     \
  " json_each(iif(json_valid(" row ".citations), " row                                            \
  ".citations, '[]'))"                                                                            \
  " WHERE value ->> 'path' IS NOT NULL EXCEPT SELECT path, page_key FROM rests_on" known          \
  ";\n"                                                                                           \
  "INSERT INTO rests_on SELECT value ->> 'path', " row ".page_key FROM " from                     \
  " json_each(iif(json_valid(" row ".build_cache), " row                                          \
  ".build_cache, '{}'), '$.lost')"                                                                \
  " WHERE value ->> 'path' IS NOT NULL EXCEPT SELECT path, page_key FROM rests_on" known          \
  ";\n"                                                                                           \
  "INSERT INTO rests_on SELECT key, " row ".page_key FROM " from " json_each(iif(json_valid(" row \
  ".source_hashes), " row                                                                         \
  ".source_hashes, '{}'))"                                                                        \
  " EXCEPT SELECT path, page_key FROM rests_on" known ";\n"
#define OSSILAR_NOTE_NEW_PATHS OSSILAR_NOTE_PATHS("new", "", " WHERE page_key = new.page_key")

// The schema is the sum of these steps, and its version is their number; a new file takes them all. CREATE
// TABLE IF NOT EXISTS would do for new tables, but cannot change an old one.
//
// Step n brings the schema from version n to n + 1. A step that was released must never change, as there are
// files that have taken it; a change of the schema is a new step at the end.
//
// `revision` is the write transaction that last changed a row, counted over the whole file. A process that
// has read up to a revision reads only rows above it. A row that is deleted would be missed that way, so a
// removed digest stays as a row without text, and a removed page is noted in removed_pages.
//
// The fifth step gives passages numbers in place of their hashes: by hash, the passages and vectors of one
// page were spread over the whole file, and a save touched a page of the database for each of them. It copies
// into new tables, as SQLite cannot change a primary key. Where chunks and words differ in number, as they do
// after step two, it makes the words of every page due.
constexpr std::array kSteps{
    R"sql(
CREATE TABLE counter (revision INTEGER NOT NULL) STRICT;
INSERT INTO counter VALUES (0);

CREATE TABLE pages (
  page_key INTEGER PRIMARY KEY,
  branch TEXT NOT NULL,
  page_id TEXT NOT NULL,
  title TEXT NOT NULL,
  description TEXT NOT NULL,
  importance TEXT NOT NULL,
  level INTEGER NOT NULL,
  parent_section TEXT NOT NULL,
  rel_path TEXT NOT NULL,
  source_files TEXT NOT NULL,
  source_hashes TEXT NOT NULL,
  symbols TEXT NOT NULL,
  related_pages TEXT NOT NULL,
  citations TEXT NOT NULL,
  content_hash TEXT NOT NULL,
  model TEXT NOT NULL,
  status TEXT NOT NULL,
  summary TEXT NOT NULL,
  build_cache TEXT NOT NULL,
  page_type TEXT NOT NULL,
  revision INTEGER NOT NULL,
  UNIQUE (branch, page_id)
) STRICT;
CREATE INDEX pages_by_revision ON pages (branch, revision);

CREATE TABLE stale_marks (
  page_key INTEGER PRIMARY KEY REFERENCES pages (page_key) ON DELETE CASCADE,
  reason TEXT NOT NULL
) STRICT;

CREATE TABLE passages (
  hash TEXT NOT NULL PRIMARY KEY,
  text TEXT NOT NULL
) STRICT;

CREATE TABLE vectors (
  hash TEXT NOT NULL REFERENCES passages (hash) ON DELETE CASCADE,
  model TEXT NOT NULL,
  vector BLOB NOT NULL,
  PRIMARY KEY (hash, model)
) STRICT;

CREATE TABLE chunks (
  page_key INTEGER NOT NULL REFERENCES pages (page_key) ON DELETE CASCADE,
  position INTEGER NOT NULL,
  section TEXT NOT NULL,
  hash TEXT NOT NULL REFERENCES passages (hash),
  model TEXT NOT NULL,
  citations TEXT NOT NULL,
  PRIMARY KEY (page_key, position)
) STRICT, WITHOUT ROWID;
CREATE INDEX chunks_by_hash ON chunks (hash, page_key);

CREATE TABLE digests (
  branch TEXT NOT NULL,
  page_id TEXT NOT NULL,
  digest TEXT,
  revision INTEGER NOT NULL,
  PRIMARY KEY (branch, page_id)
) STRICT;
CREATE INDEX digests_by_revision ON digests (branch, revision);

CREATE TABLE wiki_state (
  branch TEXT NOT NULL PRIMARY KEY,
  last_built_at TEXT NOT NULL,
  last_commit TEXT NOT NULL,
  changed_since_build INTEGER NOT NULL,
  model TEXT NOT NULL,
  page_count INTEGER NOT NULL,
  manifest_hash TEXT NOT NULL
) STRICT;

CREATE TABLE source_records (
  path TEXT NOT NULL PRIMARY KEY,
  record TEXT NOT NULL
) STRICT;
)sql",
    kCreateWordIndex,  // leaves it empty: step five makes the words of all pages due
    "CREATE INDEX chunks_by_model ON chunks (model)",
    R"sql(
CREATE TABLE removed_pages (
  branch TEXT NOT NULL,
  page_id TEXT NOT NULL,
  revision INTEGER NOT NULL,
  PRIMARY KEY (branch, page_id)
) STRICT, WITHOUT ROWID;
)sql",
    R"sql(
ALTER TABLE passages RENAME TO former_passages;
ALTER TABLE vectors RENAME TO former_vectors;
ALTER TABLE chunks RENAME TO former_chunks;
DROP INDEX chunks_by_hash;
DROP INDEX chunks_by_model;

CREATE TABLE passages (
  passage_key INTEGER PRIMARY KEY,
  hash TEXT NOT NULL UNIQUE,
  text TEXT NOT NULL
) STRICT;

CREATE TABLE vectors (
  passage_key INTEGER NOT NULL REFERENCES passages (passage_key) ON DELETE CASCADE,
  model TEXT NOT NULL,
  vector BLOB NOT NULL,
  PRIMARY KEY (passage_key, model)
) STRICT;

CREATE TABLE chunks (
  page_key INTEGER NOT NULL REFERENCES pages (page_key) ON DELETE CASCADE,
  position INTEGER NOT NULL,
  section TEXT NOT NULL,
  passage_key INTEGER NOT NULL REFERENCES passages (passage_key),
  model TEXT NOT NULL,
  citations TEXT NOT NULL,
  PRIMARY KEY (page_key, position)
) STRICT, WITHOUT ROWID;
CREATE INDEX chunks_by_passage ON chunks (passage_key, page_key);
CREATE INDEX chunks_by_model ON chunks (model);

CREATE TABLE due_words (
  page_key INTEGER PRIMARY KEY REFERENCES pages (page_key) ON DELETE CASCADE
) STRICT;

INSERT INTO passages (hash, text) SELECT hash, text FROM former_passages;
INSERT INTO vectors
  SELECT passage_key, model, vector FROM former_vectors JOIN passages USING (hash) ORDER BY passage_key;
INSERT INTO chunks
  SELECT page_key, position, section, passage_key, model, citations FROM former_chunks JOIN passages USING (hash);
INSERT INTO due_words
  SELECT DISTINCT page_key FROM chunks WHERE (SELECT count(*) FROM chunks) != (SELECT count(*) FROM words);
DROP TABLE former_chunks;
DROP TABLE former_vectors;
DROP TABLE former_passages;
)sql",
    R"sql(
CREATE TABLE own_lists (
  branch TEXT NOT NULL,
  name TEXT NOT NULL,
  hash TEXT NOT NULL,
  PRIMARY KEY (branch, name)
) STRICT, WITHOUT ROWID;
)sql",
    R"sql(
CREATE TABLE cited_texts (
  hash TEXT NOT NULL PRIMARY KEY,
  text BLOB NOT NULL
) STRICT;

CREATE TABLE cited_by (
  hash TEXT NOT NULL,
  page_key INTEGER NOT NULL REFERENCES pages (page_key) ON DELETE CASCADE,
  PRIMARY KEY (page_key, hash)
) STRICT, WITHOUT ROWID;
CREATE INDEX cited_by_hash ON cited_by (hash);
)sql",
    // The removal of a page takes its rows of cited_by along, so nothing else could drop the texts.
    R"sql(
CREATE TRIGGER drop_uncited AFTER DELETE ON cited_by
WHEN NOT EXISTS (SELECT 1 FROM cited_by WHERE hash = old.hash)
BEGIN
  DELETE FROM cited_texts WHERE hash = old.hash;
END;
DELETE FROM cited_texts WHERE hash NOT IN (SELECT hash FROM cited_by);
)sql",
    // The text comes last: SQLite reads what stands before it without the pages that a long text takes.
    R"sql(
CREATE TABLE page_versions (
  branch TEXT NOT NULL,
  page_id TEXT NOT NULL,
  number INTEGER NOT NULL,
  version TEXT NOT NULL,
  at TEXT NOT NULL,
  commit_id TEXT NOT NULL,
  client TEXT NOT NULL,
  action TEXT NOT NULL,
  text TEXT NOT NULL,
  PRIMARY KEY (branch, page_id, number)
) STRICT;
)sql",
    // Which files a page rests on, by file. Triggers keep it, so that no statement that changes a row can
    // forget it.
    R"sql(
CREATE TABLE rests_on (
  path TEXT NOT NULL,
  page_key INTEGER NOT NULL REFERENCES pages (page_key) ON DELETE CASCADE,
  PRIMARY KEY (path, page_key)
) STRICT, WITHOUT ROWID;
CREATE INDEX rests_on_by_page ON rests_on (page_key);

CREATE TRIGGER rest_of_new AFTER INSERT ON pages
BEGIN
)sql" OSSILAR_NOTE_NEW_PATHS R"sql(
END;
CREATE TRIGGER rest_of_changed AFTER UPDATE OF citations, source_hashes, build_cache ON pages
WHEN old.citations != new.citations OR old.source_hashes != new.source_hashes
  OR old.build_cache != new.build_cache
BEGIN
  DELETE FROM rests_on WHERE page_key = new.page_key;
)sql" OSSILAR_NOTE_NEW_PATHS R"sql(
END;
)sql" OSSILAR_NOTE_PATHS("pages", "pages,", ""),
    // Who is at work on which page.
    R"sql(
CREATE TABLE page_claims (
  branch TEXT NOT NULL,
  page_id TEXT NOT NULL,
  holder TEXT NOT NULL,
  client TEXT NOT NULL,
  until INTEGER NOT NULL,
  PRIMARY KEY (branch, page_id)
) STRICT;
)sql",
};

constexpr auto kSchemaVersion = static_cast<std::int64_t>(kSteps.size());

// The database header, https://www.sqlite.org/fileformat.html#the_database_header. Numbers are big-endian.
using Header = std::array<unsigned char, 100>;
constexpr std::string_view kMagic("SQLite format 3\0", 16);
constexpr std::size_t kUserVersionAt = 60;
constexpr std::size_t kApplicationIdAt = 68;

std::int32_t header_number(const Header& header, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = at; i < at + 4; ++i) value = value << 8U | header[i];
  return static_cast<std::int32_t>(value);
}

// The header as it is in the file. Without a query, as a query may roll back or checkpoint what the file's
// owner left; and through SQLite's own descriptor, as closing another one would drop this process's locks on
// the file.
Header raw_header(SQLite::Database& database) {
  sqlite3_file* file = nullptr;
  database.check(sqlite3_file_control(database.getHandle(), "main", SQLITE_FCNTL_FILE_POINTER, &file));
  Header header{};
  const int code = file->pMethods->xRead(file, header.data(), static_cast<int>(header.size()), 0);
  if (code == SQLITE_IOERR_SHORT_READ) return Header{};  // not a whole header: empty, or no database
  if (code != SQLITE_OK) throw SQLite::Exception("its header is unreadable", code);
  return header;
}

std::int64_t number(SQLite::Database& database, const char* sql) {
  return database.execAndGet(sql).getInt64();
}

void require_ours(std::int64_t application_id, std::int64_t version) {
  if (application_id != kApplicationId) {
    throw utils::Error("it belongs to another program; move it away, or keep the wiki elsewhere");
  }
  if (version > kSchemaVersion) {
    throw utils::Error("a newer ossilar made it (its schema is version " + std::to_string(version) +
                       ", this program knows " + std::to_string(kSchemaVersion) + "); upgrade ossilar");
  }
}

// The version of the schema, 0 for a file without content. Call it in a transaction: otherwise another
// process may create the tables of a new file between two of these queries.
std::int64_t schema_version(SQLite::Database& database) {
  const std::int64_t application_id = number(database, "PRAGMA application_id");
  const std::int64_t version = number(database, "PRAGMA user_version");
  const bool empty = number(database, "SELECT count(*) FROM sqlite_schema") == 0;
  if (!empty || application_id != 0 || version != 0) require_ours(application_id, version);
  return version;
}

// Whether closing the connection moves the log into the database file, as SQLite does by default for the last
// one.
void checkpoint_on_close(SQLite::Database& database, bool enabled) {
  database.check(sqlite3_db_config(database.getHandle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, enabled ? 0 : 1,
                                   static_cast<int*>(nullptr)));
}

// The version of the schema. Throws for a file that is not ours to change. The header shows most of them
// before any query. Id and version may also be in the write-ahead log alone, so they are asked for too, with
// checkpointing off: if this throws, the connection closes without moving a foreign log into its file.
std::int64_t checked_version(SQLite::Database& database) {
  const Header header = raw_header(database);
  if (std::equal(kMagic.begin(), kMagic.end(), header.begin())) {
    require_ours(header_number(header, kApplicationIdAt), header_number(header, kUserVersionAt));
  }
  checkpoint_on_close(database, false);
  SQLite::Transaction reading(database);
  const std::int64_t version = schema_version(database);
  reading.commit();
  checkpoint_on_close(database, true);
  return version;
}

void take_steps_from(Connection& connection, std::size_t version) {
  for (std::size_t at = version; at < kSteps.size(); ++at) connection.database().exec(kSteps.at(at));
}

// All steps in one transaction: a kill leaves the old schema, whole. Another process may have migrated since
// the version was checked, so it is read again under the lock.
void migrate(Connection& connection) {
  SQLite::Database& database = connection.database();
  SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
  take_steps_from(connection, static_cast<std::size_t>(schema_version(database)));
  database.exec("PRAGMA application_id = " + std::to_string(kApplicationId));
  database.exec("PRAGMA user_version = " + std::to_string(kSchemaVersion));
  transaction.commit();
}

// When two processes switch the mode of a new file at the same time, SQLite fails one of them as busy without
// waiting for the busy timeout. A moment later it finds the switch done. A thousand pauses of 5 ms only keep
// the loop from being endless: five seconds, half of what a writer is waited for.
void use_write_ahead_log(SQLite::Database& database) {
  constexpr std::chrono::milliseconds kPause(5);
  for (int attempts_left = 1000;; --attempts_left) {
    try {
      // The answer is the mode that is now in use, without an error where the switch is impossible.
      if (database.execAndGet("PRAGMA journal_mode = WAL").getString() == "wal") return;
      throw utils::Error(
          "its file system lacks shared memory, which the write-ahead log needs; keep it on a local disk");
    } catch (const SQLite::Exception& error) {
      if (error.getErrorCode() != SQLITE_BUSY || attempts_left == 0) throw;
    }
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace

// Makes the tables once more in memory and compares the texts of their definitions. A list of expected
// definitions would have to be kept in step with the migrations by hand.
std::optional<std::string> missing_from_schema(Connection& connection) {
  Connection as_made("as-made", SQLite::OPEN_READWRITE | SQLite::OPEN_MEMORY);
  take_steps_from(as_made, 0);
  // FTS5's own tables are left out: their definitions are those of the SQLite version that made the file.
  Query made(
      as_made,
      "SELECT type, name, ifnull(sql, '') FROM sqlite_schema WHERE name NOT LIKE 'words\\_%' ESCAPE '\\'");
  while (made.next()) {
    Query found(connection,
                "SELECT 1 FROM sqlite_schema WHERE type = ?1 AND name = ?2 AND ifnull(sql, '') = ?3",
                made.text(0), made.text(1), made.text(2));
    if (!found.next()) return made.text(0) + " " + made.text(1);
  }
  return std::nullopt;
}

Connection open_database(const std::filesystem::path& file) {
  Connection connection(file, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  SQLite::Database& database = connection.database();
  // The tables are made before the switch to the write-ahead log, so that a new file has our id in its header
  // from the start. In the log alone, raw_header() of another process would not see it.
  const std::int64_t version = checked_version(database);
  // Set expressly, as SQLite can be built with another default for the write-ahead log: every commit is
  // synced.
  database.exec("PRAGMA synchronous = FULL");
  if (version < kSchemaVersion) migrate(connection);
  use_write_ahead_log(database);
  // After the migration, whose steps move and drop tables that refer to each other. It has no effect within a
  // transaction, and is off by default in a new connection.
  database.exec("PRAGMA foreign_keys = ON");
  // SQLite keeps what a savepoint would roll back in temporary storage. In memory, that takes no file.
  database.exec("PRAGMA temp_store = MEMORY");
  // In KiB: 8 MiB, for what a save of one page among thousands touches. It may take that much memory, for
  // this connection.
  database.exec("PRAGMA cache_size = -8192");
  // 16 MiB. The first indexing of a large repository is one transaction, and without a limit its log would
  // keep that size for ever. Well above the log of usual saves, which SQLite checkpoints at about 4 MiB, so
  // these do not cut and extend it each time.
  database.exec("PRAGMA journal_size_limit = 16777216");
  return connection;
}

std::int64_t sqlite_schema_version() { return kSchemaVersion; }

}  // namespace ossilar::store
