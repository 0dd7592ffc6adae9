// The floor under a save: a page file written, synced, put in place and its directory synced, and one commit
// of SQLite's write-ahead log with synchronous = FULL; nothing else. Prints the microseconds of each as a
// JSON list.
//   floor_bench FOLDER COUNT
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "ossilar/utils/files.h"

int main(int argc, char** argv) {
  using Clock = std::chrono::steady_clock;
  if (argc != 3) {
    std::fputs("floor_bench FOLDER COUNT\n", stderr);
    return 2;
  }
  const std::filesystem::path folder = std::filesystem::absolute(argv[1]) / "floor";
  std::filesystem::create_directories(folder);
  SQLite::Database database((folder / "floor.db").string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  database.exec(
      "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
      "CREATE TABLE IF NOT EXISTS pages (id INTEGER PRIMARY KEY, text TEXT)");
  SQLite::Statement put(database, "INSERT OR REPLACE INTO pages VALUES (?, ?)");
  constexpr int kPages = 64;
  const int count = std::atoi(argv[2]);
  for (int i = 0; i < count; ++i) {
    const std::string text(6000, static_cast<char>('a' + i % 26));
    const auto begun = Clock::now();
    ossilar::utils::atomic_write(folder / (std::to_string(i % kPages) + ".md"), text);
    put.bind(1, i % kPages);
    put.bind(2, text);
    put.exec();
    put.reset();
    const auto took = std::chrono::duration<double, std::micro>(Clock::now() - begun).count();
    std::printf("%s%.1f", i == 0 ? "[" : ",", took);
  }
  std::puts("]");
}
