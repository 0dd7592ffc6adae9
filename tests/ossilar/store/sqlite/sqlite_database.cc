// The contract's database as one SQLite file, with the lock of one machine.
#include "ossilar/store/contract/tested_database.h"
#include "ossilar/store/file_lock.h"
#include "ossilar/store/sqlite/connection.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "support/temp_dir.h"

namespace ossilar::store {
namespace {

class SqliteDatabase final : public TestedDatabase {
 public:
  std::unique_ptr<WikiStore> open() override { return open_sqlite_store(file_); }
  std::unique_ptr<WriteLock> open_lock(std::chrono::milliseconds timeout) override {
    return std::make_unique<FileLock>(
        FileLock::Options{.path = dir_ / "write.lock", .timeout = timeout, .holder = "ossilar save"});
  }
  std::int64_t number(const std::string& sql) override {
    Connection connection(file_, SQLite::OPEN_READONLY);
    Query query(connection, sql.c_str());
    query.next();
    return query.number(0);
  }
  std::string name() override { return file_.string(); }

 private:
  const testing::TempDir dir_;
  const std::filesystem::path file_ = dir_ / "index.db";
};

}  // namespace

std::unique_ptr<TestedDatabase> make_database() { return std::make_unique<SqliteDatabase>(); }

}  // namespace ossilar::store
