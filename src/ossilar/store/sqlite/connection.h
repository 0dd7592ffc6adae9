// A connection to the database with its statements, prepared once and used again, and its failures in words.
// Internal to this room.
#pragma once

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <cstdint>
#include <exception>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "ossilar/utils/error.h"

namespace ossilar::store {

// Writers hold the file for milliseconds; one that holds it this long is stuck.
inline constexpr int kBusyTimeoutMs = 10'000;

// What is stored is not what this program stores.
class DamagedError : public utils::Error {
 public:
  explicit DamagedError(const std::string& message, utils::Place place = utils::Place::current())
      : Error(message, place) {}
};

// Bytes to bind as a BLOB.
struct Blob {
  std::string_view bytes;
};

// Thread-safety: one thread at a time.
class Connection {
 public:
  // `flags` are SQLite::OPEN_...; a symbolic link on the way to the file is refused.
  Connection(const std::filesystem::path& file, int flags);

  SQLite::Database& database() { return database_; }
  // Throws utils::Error when the file is no longer where it was opened: what is written to it then is nowhere
  // to be found, and what is read from it is of the past.
  void require_in_place();
  // The statement of `sql`, which must outlive the connection, as string literals do.
  SQLite::Statement& prepared(const char* sql);

 private:
  SQLite::Database database_;
  std::map<std::string_view, SQLite::Statement> statements_;  // finalised before the database closes
};

// A statement in use. It is reset at the end of the scope, however that is left: a statement left open keeps
// its read transaction, and with it the write-ahead log from being emptied.
class Query {
 public:
  // Binds `values` to ?1, ?2, ... Throws utils::Error for text that is not UTF-8.
  template <class... Values>
  explicit Query(Connection& connection, const char* sql, const Values&... values)
      : statement_(connection.prepared(sql)) {
    statement_.clearBindings();
    int index = 0;
    (bind(++index, values), ...);
  }
  ~Query() { statement_.tryReset(); }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  // Goes to the next row of the result; false after the last.
  bool next() { return statement_.executeStep(); }
  void run() {
    while (next()) {
    }
  }

  // Of the row at hand, by column from 0.
  std::string text(int column) const;
  std::string_view view(int column) const;  // text() without a copy, until the next row
  std::int64_t number(int column) const;
  double real(int column) const { return statement_.getColumn(column).getDouble(); }
  std::string blob(int column) const;
  bool is_null(int column) const { return statement_.isColumnNull(column); }

 private:
  void bind(int index, std::int64_t value) { statement_.bind(index, value); }
  void bind(int index, const std::string& value);
  void bind(int index, Blob value);

  SQLite::Statement& statement_;
};

// Throws DamagedError for a stored text that is not UTF-8.
void require_utf8(std::string_view text);

// Throws `error` as StorageError: "FILE: cannot ATTEMPT: the error's words", with what to do where that is
// known. A StorageError stays as it is, and so does what is no failure of SQLite, JSON or ours.
[[noreturn]] void rethrow_as_storage_error(const std::filesystem::path& file, const std::string& attempt,
                                           const std::exception& error);

// What `work` gives; its failures leave as StorageError, as above.
template <class Work>
auto with_storage_errors(const std::filesystem::path& file, const std::string& attempt, Work work) {
  try {
    return work();
  } catch (const std::exception& error) {
    rethrow_as_storage_error(file, attempt, error);
  }
}

}  // namespace ossilar::store
