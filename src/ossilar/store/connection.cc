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
    Advice{SQLITE_NOTADB,
           "it is no database; `ossilar check --fix` moves it away and makes it anew from the wiki's files"},
    Advice{SQLITE_CORRUPT, "the file is damaged; `ossilar check --fix` makes it anew from the wiki's files"},
    Advice{SQLITE_ERROR, "`ossilar check --fix` makes it anew from the wiki's files"},
};

constexpr int kPrimaryCode = 0xff;  // of an error code; the rest tells kinds of it apart

// SQLITE_ERROR, which stands for a statement that SQLite cannot make sense of, means that the tables are not
// those that the statements are about.
bool means_damage(int code) {
  const int primary = code & kPrimaryCode;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_ERROR;
}

std::string advice_on(int code) {
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
    throw StorageError(message + advice_on(sqlite->getErrorCode()), means_damage(sqlite->getErrorCode()));
  }
  if (dynamic_cast<const DamagedError*>(&error) != nullptr) {
    throw StorageError(message + advice_on(SQLITE_CORRUPT), true);
  }
  if (dynamic_cast<const utils::Error*>(&error) != nullptr ||
      dynamic_cast<const Map::exception*>(&error) != nullptr) {
    throw StorageError(message);
  }
  throw;
}

}  // namespace ossilar::store
