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

#include "ossilar/store/sqlite/word_index.h"
#include "ossilar/utils/error.h"

namespace ossilar::store {
namespace {

// Step n brings the schema from version n to n + 1. A step that has been released never changes; a change of
// the schema is a new step at the end.
//
// `revision` is the write transaction that last changed a row, counted over the whole file: who has read up
// to a revision reads what is above it. A digest that is gone stays as a row without text, and a page that is
// gone is noted in removed_pages, so that its going is seen too.
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
    kCreateWordIndex,  // its words are due with a later step
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
};

constexpr auto kSchemaVersion = static_cast<std::int64_t>(kSteps.size());

// The database header, https://www.sqlite.org/fileformat.html#the_database_header.
using Header = std::array<unsigned char, 100>;
constexpr std::string_view kMagic("SQLite format 3\0", 16);
constexpr std::size_t kUserVersionAt = 60;
constexpr std::size_t kApplicationIdAt = 68;

std::int32_t header_number(const Header& header, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = at; i < at + 4; ++i) value = value << 8U | header[i];
  return static_cast<std::int32_t>(value);
}

// The header as it is in the file, read through SQLite's own descriptor and without a query: a query may roll
// back or checkpoint what its owner left, and closing a descriptor of our own would drop this process's locks
// on the file.
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
    throw utils::Error("made by a newer ossilar (its schema is version " + std::to_string(version) +
                       ", this program knows " + std::to_string(kSchemaVersion) + "); upgrade ossilar");
  }
}

// The version of the schema, 0 for a file without content. To be called in a transaction: the tables of a new
// file may be made by another process between two of these queries.
std::int64_t schema_version(SQLite::Database& database) {
  const std::int64_t application_id = number(database, "PRAGMA application_id");
  const std::int64_t version = number(database, "PRAGMA user_version");
  const bool empty = number(database, "SELECT count(*) FROM sqlite_schema") == 0;
  if (!empty || application_id != 0 || version != 0) require_ours(application_id, version);
  return version;
}

void checkpoint_on_close(SQLite::Database& database, bool enabled) {
  database.check(sqlite3_db_config(database.getHandle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, enabled ? 0 : 1,
                                   static_cast<int*>(nullptr)));
}

// Refuses a file that is not ours to change. The header tells before any query; what only the write-ahead log
// holds is asked for after it, and does not go into the file when the connection then closes.
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

// Another process may have migrated meanwhile, so the version is read again within the transaction.
void migrate(Connection& connection) {
  SQLite::Database& database = connection.database();
  SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
  take_steps_from(connection, static_cast<std::size_t>(schema_version(database)));
  database.exec("PRAGMA application_id = " + std::to_string(kApplicationId));
  database.exec("PRAGMA user_version = " + std::to_string(kSchemaVersion));
  transaction.commit();
}

// Of two processes that switch the mode of a new file at once, one is told that it is busy at once, without
// regard to the busy timeout. It finds the switch done a moment later.
void use_write_ahead_log(SQLite::Database& database) {
  constexpr std::chrono::milliseconds kPause(5);
  for (int attempts_left = 1000;; --attempts_left) {
    try {
      if (database.execAndGet("PRAGMA journal_mode = WAL").getString() == "wal") return;
      throw utils::Error("its file system has no shared memory, which the write-ahead log needs");
    } catch (const SQLite::Exception& error) {
      if (error.getErrorCode() != SQLITE_BUSY || attempts_left == 0) throw;
    }
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace

std::optional<std::string> missing_from_schema(Connection& connection) {
  Connection as_made("as-made", SQLite::OPEN_READWRITE | SQLite::OPEN_MEMORY);
  take_steps_from(as_made, 0);
  // What FTS5 makes for itself is made by the version of SQLite that made the file.
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
  // The tables are made before the write-ahead log is, so the file itself says from its first page on whose
  // it is.
  const std::int64_t version = checked_version(database);
  database.exec("PRAGMA synchronous = FULL");
  if (version < kSchemaVersion) migrate(connection);
  use_write_ahead_log(database);
  database.exec("PRAGMA foreign_keys = ON");
  // What a step of a group would take back is kept in memory, not in a file elsewhere.
  database.exec("PRAGMA temp_store = MEMORY");
  database.exec("PRAGMA cache_size = -8192");  // KiB; what a save of one page among thousands touches
  // The first indexing of a large repository is one transaction; its log is not to keep that size for ever.
  database.exec("PRAGMA journal_size_limit = 16777216");
  return connection;
}

}  // namespace ossilar::store
