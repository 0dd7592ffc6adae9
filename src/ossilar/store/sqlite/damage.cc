// Each check assumes what the ones before it have established. SQLite's own check comes first, because
// queries on a broken B-tree may say anything; then the schema, because all later statements name its tables;
// then FTS5 and the references; then the values.
//
// integrity_check alone, the plain way, knows nothing of what our values must be: a text that is not UTF-8, a
// JSON value of the wrong kind, or words that belong to no chunk pass it, and fail later in the middle of a
// save.
#include "ossilar/store/sqlite/damage.h"

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>
#include <sqlite3.h>

#include <array>
#include <cstdlib>
#include <string_view>

#include "ossilar/store/sqlite/schema.h"
#include "ossilar/store/sqlite/word_index.h"

namespace ossilar::store {
namespace {

// https://www.sqlite.org/pragma.html#pragma_integrity_check; one finding is enough. FTS5's check of its index
// against its own content (https://www.sqlite.org/fts5.html, 6.4) looks like a write but only reads, and
// fails with SQLITE_CORRUPT for damage.
constexpr const char* kStructure = "PRAGMA integrity_check(1)";
constexpr const char* kWordsStructure = "INSERT INTO words (words) VALUES ('integrity-check')";
// References are enforced by each connection for itself; a program that does not switch that on can break
// them.
constexpr const char* kReferences = "PRAGMA foreign_key_check";
// The number of chunks less the number of rows of words, both without the pages that are still to be indexed:
// 0 when each chunk has its row. Their texts cannot be compared in SQL: the index holds spelled-out ones.
constexpr const char* kUnindexed =
    "SELECT (SELECT count(*) FROM chunks WHERE page_key NOT IN (SELECT page_key FROM due_words))"
    " - (SELECT count(*) FROM words"
    " WHERE rowid >> " OSSILAR_POSITION_BITS " NOT IN (SELECT page_key FROM due_words))";
// All tables but `words` and those that FTS5 keeps beside it in a format of its own. "%w" quotes a name.
constexpr const char* kTables =
    "SELECT format('SELECT * FROM \"%w\"', name) FROM sqlite_schema"
    " WHERE type = 'table' AND name NOT LIKE 'words%'";
// A number of a vector has four bytes.
constexpr const char* kCutVectors =
    "SELECT hash FROM vectors JOIN passages USING (passage_key)"
    " WHERE length(vector) = 0 OR length(vector) % 4 != 0";

// Where JSON is stored, and its type there. A build cache may be empty, and a digest NULL: the row of a
// removed digest.
struct Shape {
  const char* table;
  const char* text;  // the column, or an expression on it
  const char* type;  // as json_type() names it
};
constexpr std::array kShapes{
    Shape{"pages", "source_files", "array"}, Shape{"pages", "source_hashes", "object"},
    Shape{"pages", "symbols", "array"},      Shape{"pages", "related_pages", "array"},
    Shape{"pages", "citations", "array"},    Shape{"pages", "nullif(build_cache, '')", "object"},
    Shape{"chunks", "citations", "array"},   Shape{"digests", "digest", "object"}};

// Throws DamagedError for a text of the table that is not UTF-8: Query::text() would fail on it later. A
// statement of its own, as the SQL is made here and prepared() needs a text that outlives the connection.
void require_texts(Connection& connection, const std::string& all_rows) {
  SQLite::Statement rows(connection.database(), all_rows);
  while (rows.executeStep()) {
    for (int column = 0; column < rows.getColumnCount(); ++column) {
      const SQLite::Column value = rows.getColumn(column);
      if (value.isText()) require_utf8(value.getString());
    }
  }
}

// iif(), as json_type() of a text that is no JSON would fail instead of giving a result.
bool holds_shape(Connection& connection, const Shape& shape) {
  const std::string text = shape.text;
  SQLite::Statement others(connection.database(), std::string("SELECT 1 FROM ") + shape.table + " WHERE " +
                                                      text + " IS NOT NULL AND iif(json_valid(" + text +
                                                      "), json_type(" + text + ") != ?1, TRUE)");
  others.bind(1, shape.type);
  return !others.executeStep();
}

// SQLite's check reports a page that the disk did not give as it reports a broken one, with the code of the
// failure at the end: "Page 7: unable to get the page. error code=266". Such a page may be sound.
void require_read(const std::string& finding) {
  constexpr std::string_view kCode = "error code=";
  const std::size_t at = finding.rfind(kCode);
  if (at == std::string::npos) return;
  const int code = std::atoi(finding.c_str() + at + kCode.size());
  if ((code & 0xff) == SQLITE_IOERR) throw SQLite::Exception("disk I/O error", code);
}

}  // namespace

std::optional<std::string> first_damage(Connection& connection) {
  Query structure(connection, kStructure);
  if (structure.next() && structure.text(0) != "ok") {
    require_read(structure.text(0));
    return structure.text(0);
  }
  if (const auto missing = missing_from_schema(connection))
    return "the " + *missing + " is missing or has another definition";
  Query(connection, kWordsStructure).run();
  Query references(connection, kReferences);
  if (references.next()) return "the table " + references.text(0) + " refers to rows that do not exist";
  Query words(connection, kUnindexed);
  if (words.next() && words.number(0) != 0) return "the word index does not match the chunks";
  Query tables(connection, kTables);
  while (tables.next()) require_texts(connection, tables.text(0));
  Query cut(connection, kCutVectors);
  if (cut.next()) return "the vector of the passage " + cut.text(0) + " is truncated";
  for (const Shape& shape : kShapes) {
    if (!holds_shape(connection, shape)) {
      return std::string("the table ") + shape.table + " has a value that is not the expected JSON";
    }
  }
  return std::nullopt;
}

}  // namespace ossilar::store
