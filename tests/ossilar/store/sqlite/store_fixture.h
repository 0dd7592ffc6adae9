// A store in a directory of its own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <string>
#include <thread>

#include "ossilar/store/forwarding_store.h"
#include "ossilar/store/sqlite/connection.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "support/temp_dir.h"

namespace ossilar::store {

// The message of the StorageError that `call` throws, or "" when it throws none.
template <class Call>
std::string refusal(Call call) {
  try {
    call();
  } catch (const StorageError& error) {
    return error.what();
  }
  return "";
}

class StoreTest : public ::testing::Test {
 protected:
  // A number read from the file itself, past the store's snapshots.
  std::int64_t stored(const char* sql) {
    Connection connection(file, SQLite::OPEN_READONLY);
    Query query(connection, sql);
    EXPECT_TRUE(query.next()) << sql;
    return query.number(0);
  }

  static std::map<std::string, std::string> source_records(WikiStore& of) {
    std::map<std::string, std::string> records;
    of.source_records([&](std::string_view path, std::string_view record) { records.emplace(path, record); });
    return records;
  }

  static Map chunk(int position, const std::string& hash, Map embedding = {0.5, -1.0}) {
    const Map citations = Map::array({{{"path", "a.cc"}, {"first", position}}});
    return {{"position", position}, {"section", "S"},         {"text", "text of " + hash}, {"hash", hash},
            {"model", "m"},         {"citations", citations}, {"embedding", embedding}};
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
  ForwardingStore store{*sqlite};  // so that each test goes through the wrapper of the seam
};

}  // namespace ossilar::store
