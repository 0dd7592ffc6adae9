// A store in one SQLite file, which tests look into.
#pragma once

#include <latch>
#include <thread>

#include "ossilar/store/contract/store_fixture.h"
#include "ossilar/store/sqlite/connection.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "support/temp_dir.h"

namespace ossilar::store {

class SqliteTest : public ::testing::Test {
 protected:
  std::int64_t stored(const char* sql) {
    Connection connection(file, SQLite::OPEN_READONLY);
    Query query(connection, sql);
    EXPECT_TRUE(query.next()) << sql;
    return query.number(0);
  }

  static std::int64_t put(WikiStore& into, const std::string& page, const std::string& description = "") {
    return into.upsert_wiki_page("main", page, page, {.description = description});
  }

  // Another connection writes and commits while `write` waits for the database: it must succeed all the same.
  template <class Write>
  void expect_to_come_after_anothers_commit(Write write) {
    Connection other(file, SQLite::OPEN_READWRITE);
    for (int round = 0; round < 20; ++round) {
      std::latch begun(1);
      other.database().exec("BEGIN IMMEDIATE");
      std::thread writer([&] {
        begun.count_down();
        EXPECT_EQ(refusal(write), "");
      });
      begun.wait();
      for (int i = 0; i < 1000; ++i) other.database().exec("UPDATE counter SET revision = revision + 1");
      other.database().exec("COMMIT");
      writer.join();
    }
  }

  testing::TempDir dir;
  const std::filesystem::path file = dir / "index.db";
  const std::unique_ptr<WikiStore> sqlite = open_sqlite_store(file);
  ForwardingStore store{*sqlite};
};

}  // namespace ossilar::store
