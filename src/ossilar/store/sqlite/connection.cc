// SQLite says what failed, seldom why: "disk I/O error" may be a full disk, a lost one or one that became
// read-only. So a failure is translated in one place, where the file is known: the error's words, what the
// disk itself says, and what to do by the kind of failure. If each operation did that, some would forget it.
//
// Text is checked for UTF-8 both ways. SQLite stores any bytes as text; what got in unchecked would fail far
// from here, when it is put into JSON for an agent.
#include "ossilar/store/sqlite/connection.h"

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Exception.h>
#include <sqlite3.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>

#include "ossilar/store/repository.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"

namespace ossilar::store {
namespace {

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
           "check that its folder exists and is writable, and that its path has no symbolic link"},
    Advice{SQLITE_NOTADB,
           "it is not a database; `ossilar check --fix` moves it away and rebuilds it from the wiki's files"},
    Advice{SQLITE_CORRUPT, "the file is damaged; `ossilar check --fix` rebuilds it from the wiki's files"},
    Advice{SQLITE_ERROR, "`ossilar check --fix` rebuilds it from the wiki's files"},
};

constexpr int kPrimaryCode = 0xff;  // SQLite's extended error codes have the primary code in their low byte

// SQLITE_ERROR is what a statement gets that names unknown tables or columns. Our statements are fixed, so
// the tables are not as this program made them.
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

// What the disk that `file` lies on says, where that explains a failure; else "".
std::string state_of_disk(const std::filesystem::path& file) {
  // A write may need several blocks at once, for the log and for the database, so it can fail before the last
  // block is taken. With 64 left, 256 KiB at the usual block size, the shortage is likely the cause.
  constexpr fsblkcnt_t kFewBlocks = 64;
  struct statvfs disk {};
  if (statvfs(file.parent_path().c_str(), &disk) != 0) return "";
  if ((disk.f_flag & ST_RDONLY) != 0) return " (the file system is read-only)";
  // A file system that does not count files, as some create them as needed, gives 0 for f_files.
  if (disk.f_files != 0 && disk.f_favail == 0) return " (the file system has no free inodes)";
  if (disk.f_bavail >= kFewBlocks) return "";
  return " (the disk has only " + std::to_string(disk.f_bavail * disk.f_frsize / 1024) + " KiB left)";
}

// Whether the state of the disk may explain the failure. For others it would only lead away from the cause.
bool is_about_the_disk(int code) {
  static constexpr std::array kCodes{SQLITE_CANTOPEN, SQLITE_FULL, SQLITE_IOERR, SQLITE_READONLY};
  return std::find(kCodes.begin(), kCodes.end(), code & kPrimaryCode) != kCodes.end();
}

}  // namespace

// NOMUTEX: one thread at a time uses a connection, and its owner has a mutex for that. NOFOLLOW: a link must
// not lead writes out of `.ossilar`. An absolute name is never one of SQLite's special names, such as
// ":memory:".
Connection::Connection(const std::filesystem::path& file, int flags)
    : database_(std::filesystem::absolute(file).string(),
                flags | SQLite::OPEN_NOMUTEX | SQLite::OPEN_NOFOLLOW, kBusyTimeoutMs) {}

// Asks SQLite, which compares the name with the file that it has open. A descriptor of our own could not be
// used: closing it would drop this process's locks on the file.
void Connection::require_in_place() {
  int moved = 0;
  database_.check(sqlite3_file_control(database_.getHandle(), "main", SQLITE_FCNTL_HAS_MOVED, &moved));
  if (moved != 0) throw utils::Error("it was moved or removed while it was open; try again");
}

SQLite::Statement& Connection::prepared(const char* sql) {
  const auto found = statements_.find(sql);
  if (found != statements_.end()) return found->second;
  return statements_.emplace(sql, SQLite::Statement(database_, sql)).first->second;
}

void require_utf8(std::string_view text) {
  if (utils::first_invalid_utf8(text)) throw DamagedError("a stored text is not UTF-8");
}

std::string Query::text(int column) const {
  std::string text = blob(column);
  require_utf8(text);
  return text;
}

// getText() first: it converts the value to text, and getBytes() then counts the bytes of the converted one.
std::string_view Query::view(int column) const {
  const SQLite::Column value = statement_.getColumn(column);
  const char* text = value.getText();
  const std::string_view view(text, static_cast<std::size_t>(value.getBytes()));
  require_utf8(view);
  return view;
}

// Bytes with their count, so a text that contains NUL comes back whole.
std::string_view Query::bytes(int column) const {
  const SQLite::Column value = statement_.getColumn(column);
  const auto* first = static_cast<const char*>(value.getBlob());
  return {first, static_cast<std::size_t>(value.getBytes())};
}

std::string Query::blob(int column) const { return statement_.getColumn(column).getString(); }

std::int64_t Query::number(int column) const { return statement_.getColumn(column).getInt64(); }

void Query::bind(int index, const std::string& value) {
  utils::require_utf8(value, "the text to store or look up");
  statement_.bind(index, value);
}

// The cast is safe for what is stored as a BLOB: vectors of some thousand numbers.
void Query::bind(int index, Blob value) {
  statement_.bind(index, value.bytes.data(), static_cast<int>(value.bytes.size()));
}

// `throw;` keeps the dynamic type, and the place of the throw, of what is passed on.
void rethrow_as_storage_error(const std::filesystem::path& file, const std::string& attempt,
                              const std::exception& error) {
  if (dynamic_cast<const StorageError*>(&error) != nullptr) throw;
  const std::string message = file.string() + ": cannot " + attempt + ": " + error.what();
  if (const auto* sqlite = dynamic_cast<const SQLite::Exception*>(&error)) {
    const int code = sqlite->getErrorCode();
    throw StorageError(message + (is_about_the_disk(code) ? state_of_disk(file) : "") + advice_on(code),
                       means_damage(code));
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
