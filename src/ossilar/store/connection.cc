#include "ossilar/store/connection.h"

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Exception.h>
#include <sqlite3.h>

#include <array>

#include "ossilar/store/repository.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"

namespace ossilar::store {
namespace {

// Writers hold the file for milliseconds; one that holds it this long is stuck.
constexpr int kBusyTimeoutMs = 10'000;

struct Advice {
  int code;
  const char* text;
};

constexpr std::array kAdvice{
    Advice{SQLITE_FULL, "free some space and try again"},
    Advice{SQLITE_IOERR, "check the disk and its free space"},
    Advice{SQLITE_BUSY, "another program keeps it locked; try again, or end that program"},
    Advice{SQLITE_READONLY, "check the permissions of the file and its folder"},
    Advice{SQLITE_PERM, "check the permissions of the file and its folder"},
    Advice{SQLITE_CANTOPEN,
           "check that its folder is there and may be written, with no symbolic link on the way"},
    Advice{SQLITE_NOTADB, "another program's file has this name; move it away"},
    Advice{
        SQLITE_CORRUPT,
        "the file is damaged; move it and its -wal and -shm files away, and `ossilar init` takes the stored "
        "pages up again"},
};

std::string advice_on(int code) {
  constexpr int kPrimaryCode = 0xff;  // the rest tells kinds of it apart
  for (const Advice& advice : kAdvice) {
    if (advice.code == (code & kPrimaryCode)) return std::string("; ") + advice.text;
  }
  return "";
}

}  // namespace

Connection::Connection(const std::filesystem::path& file, int flags)
    : database_(std::filesystem::absolute(file).string(),
                flags | SQLite::OPEN_NOMUTEX | SQLite::OPEN_NOFOLLOW, kBusyTimeoutMs) {}

SQLite::Statement& Connection::prepared(const char* sql) {
  const auto found = statements_.find(sql);
  if (found != statements_.end()) return found->second;
  return statements_.emplace(sql, SQLite::Statement(database_, sql)).first->second;
}

std::string Query::text(int column) const { return statement_.getColumn(column).getString(); }

std::int64_t Query::number(int column) const { return statement_.getColumn(column).getInt64(); }

void Query::bind(int index, const std::string& value) {
  utils::require_utf8(value, "a text to be stored or looked for");
  statement_.bind(index, value);
}

void Query::bind(int index, Blob value) {
  statement_.bind(index, value.bytes.data(), static_cast<int>(value.bytes.size()));
}

void rethrow_as_storage_error(const std::filesystem::path& file, const std::string& attempt,
                              const std::exception& error) {
  if (dynamic_cast<const StorageError*>(&error) != nullptr) throw;
  const std::string message = file.string() + ": cannot " + attempt + ": " + error.what();
  if (const auto* sqlite = dynamic_cast<const SQLite::Exception*>(&error)) {
    throw StorageError(message + advice_on(sqlite->getErrorCode()));
  }
  if (dynamic_cast<const utils::Error*>(&error) != nullptr ||
      dynamic_cast<const Map::exception*>(&error) != nullptr) {
    throw StorageError(message);
  }
  throw;
}

}  // namespace ossilar::store
