// The floor under a save: the least that puts a page on disk. A page file is written, synced, put in place
// and its directory synced, and one row is committed to SQLite's write-ahead log with synchronous = FULL;
// nothing else.
#pragma once

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"

namespace ossilar::bench {

class Floor {
 public:
  explicit Floor(const std::filesystem::path& folder) : folder_(folder), database_(opened(folder)) {}

  // Writes one of 64 pages of 6 KB; gives the microseconds that it took.
  double write(std::size_t i) {
    using Clock = std::chrono::steady_clock;
    constexpr std::size_t kPages = 64;
    const std::string text(6000, static_cast<char>('a' + i % 26));
    const auto begun = Clock::now();
    utils::atomic_write(folder_ / (std::to_string(i % kPages) + ".md"), text);
    put_.bind(1, static_cast<std::int64_t>(i % kPages));
    put_.bind(2, text);
    put_.exec();
    put_.reset();
    return std::chrono::duration<double, std::micro>(Clock::now() - begun).count();
  }

 private:
  static SQLite::Database opened(const std::filesystem::path& folder) {
    std::filesystem::create_directories(folder);
    SQLite::Database database((folder / "floor.db").string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    database.exec(
        "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
        "CREATE TABLE IF NOT EXISTS pages (id INTEGER PRIMARY KEY, text TEXT)");
    return database;
  }

  const std::filesystem::path folder_;
  SQLite::Database database_;
  SQLite::Statement put_{database_, "INSERT OR REPLACE INTO pages VALUES (?, ?)"};
};

}  // namespace ossilar::bench
