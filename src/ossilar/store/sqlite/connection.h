// A connection to the database, queries on it, and the translation of failures into StorageError. Internal to
// this room: every other file of it works through a Connection.
#pragma once

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <cstdint>
#include <exception>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "ossilar/store/stored_form.h"
#include "ossilar/utils/error.h"

namespace ossilar::store {

// How long SQLite waits for a writer of another process before it fails with SQLITE_BUSY. Writers hold the
// file for milliseconds; one that holds it this long is stuck.
inline constexpr int kBusyTimeoutMs = 10'000;

// Bytes to bind as a BLOB; a std::string is bound as text, and checked.
struct Blob {
  std::string_view bytes;
};

// A database file with its prepared statements. Each statement is prepared once: saves run the same ones
// again and again, some of them for each passage.
//
// Thread-safety: one thread at a time; SQLite's own mutexes are switched off.
class Connection {
 public:
  // `flags` are SQLite::OPEN_...; a symbolic link on the way to the file is refused. Throws
  // SQLite::Exception.
  Connection(const std::filesystem::path& file, int flags);

  SQLite::Database& database() { return database_; }
  // Throws utils::Error when the file was removed or moved since it was opened. The open file would still
  // work, but writes to it would be lost and reads from it outdated.
  void require_in_place();
  // The prepared statement of `sql`. The text must outlive the connection, as string literals do: the map of
  // statements points to it.
  SQLite::Statement& prepared(const char* sql);

 private:
  // The order matters: statements must be finalised before the database is closed.
  SQLite::Database database_;
  std::map<std::string_view, SQLite::Statement> statements_;
};

// A statement in use. It is reset at the end of the scope, however that is left: an open statement keeps its
// read transaction open, and then the write-ahead log cannot be emptied.
//
// Of one connection, no two queries with the same text may be open at once: they share one prepared
// statement.
class Query {
 public:
  // Binds `values` to ?1, ?2, ... The statement gets copies, so temporaries may be passed. Throws
  // utils::Error for text that is not UTF-8, SQLite::Exception for SQL that the database's tables do not fit.
  template <class... Values>
  explicit Query(Connection& connection, const char* sql, const Values&... values)
      : statement_(connection.prepared(sql)) {
    // A parameter that is not bound below must be NULL, not what it was last time.
    statement_.clearBindings();
    int index = 0;
    (bind(++index, values), ...);
  }
  // reset() would throw the failure of the last step once more; it was thrown by next().
  ~Query() { statement_.tryReset(); }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  // Goes to the next row of the result; false after the last. The first call executes a write. Throws
  // SQLite::Exception.
  bool next() { return statement_.executeStep(); }
  // Runs the statement to its end; for those without a result, or whose result is not needed.
  void run() {
    while (next()) {
    }
  }

  // Values of the current row, by column from 0. text() and view() throw DamagedError for bytes that are not
  // UTF-8.
  std::string text(int column) const;
  std::string_view view(int column) const;  // text() without a copy, valid until the next call of next()
  std::int64_t number(int column) const;
  double real(int column) const { return statement_.getColumn(column).getDouble(); }
  std::string blob(int column) const;
  std::string_view bytes(int column) const;  // blob() without a copy, as view()
  bool is_null(int column) const { return statement_.isColumnNull(column); }

 private:
  void bind(int index, std::int64_t value) { statement_.bind(index, value); }
  void bind(int index, const std::string& value);
  void bind(int index, Blob value);

  SQLite::Statement& statement_;
};

// Throws DamagedError for a stored text that is not UTF-8.
void require_utf8(std::string_view text);

// Throws `error`, which is being handled, as StorageError: "FILE: cannot ATTEMPT: the error's words", with
// advice where there is any. Rethrows unchanged a StorageError, and whatever is no failure of SQLite, JSON or
// this program, such as std::bad_alloc. To be called from a handler only.
[[noreturn]] void rethrow_as_storage_error(const std::filesystem::path& file, const std::string& attempt,
                                           const std::exception& error);

// The result of `work`, whose failures leave as StorageError, as above. `attempt` is read when a failure is
// reported, so `work` may change it as it goes. utils::Cancelled passes, as it is no std::exception.
template <class Work>
auto with_storage_errors(const std::filesystem::path& file, const std::string& attempt, Work work) {
  try {
    return work();
  } catch (const std::exception& error) {
    rethrow_as_storage_error(file, attempt, error);
  }
}

}  // namespace ossilar::store
