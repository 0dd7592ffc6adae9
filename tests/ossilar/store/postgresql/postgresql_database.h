// The contract's database in the test program's own PostgreSQL server.
#pragma once

#include <string>

#include "ossilar/store/contract/tested_database.h"
#include "ossilar/store/postgresql/connection.h"
#include "ossilar/store/postgresql/postgresql_store.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "support/postgres_server.h"
#include "support/temp_dir.h"

namespace ossilar::store {

class PostgresqlDatabase final : public TestedDatabase {
 public:
  PostgresqlDatabase() {
    static int count = 0;
    database_ = "wiki" + std::to_string(++count);
    execute("postgres", "CREATE DATABASE " + database_);
  }

  SharedStore open_shared(std::chrono::milliseconds timeout = std::chrono::seconds(30),
                          const std::filesystem::path& socket = {}) {
    return open_postgresql_store(
        {.url = url(socket), .program = "ossilar save", .branch = "main", .lock_timeout = timeout},
        open_sqlite_store(dir_ / "index.db"));
  }
  std::unique_ptr<WikiStore> open() override { return open_shared().store; }
  std::unique_ptr<WriteLock> open_lock(std::chrono::milliseconds timeout) override {
    return open_shared(timeout).lock;
  }
  std::int64_t number(const std::string& sql) override {
    return postgresql::Connection({.url = url(), .program = "test"})
        .run_one({.sql = sql.c_str()})
        .number(0, 0);
  }
  void execute(const std::string& sql) const { execute(database_, sql); }
  std::string name() override { return postgresql::shown_address(url()); }
  std::string url(const std::filesystem::path& socket = {}) const {
    return testing::PostgresServer::shared().url(database_, socket);
  }

 private:
  static void execute(const std::string& database, const std::string& sql) {
    postgresql::Connection({.url = testing::PostgresServer::shared().url(database), .program = "test"})
        .execute(sql);
  }

  const testing::TempDir dir_;
  std::string database_;
};

}  // namespace ossilar::store
