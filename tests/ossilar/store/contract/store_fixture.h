// A store over a database of its own, for every case of the contract.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ossilar/store/contract/tested_database.h"
#include "ossilar/store/forwarding_store.h"

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

inline std::map<std::string, std::string> source_records(WikiStore& of) {
  std::map<std::string, std::string> records;
  of.source_records([&](std::string_view path, std::string_view record) { records.emplace(path, record); });
  return records;
}

inline std::string title(const StoredRows& rows, const char* page) {
  return utils::string_member(*rows.find(page), "title");
}

inline Map chunk(int position, const std::string& hash, Map embedding = {0.5, -1.0}) {
  const Map citations = Map::array({{{"path", "a.cc"}, {"first", position}}});
  return {{"position", position}, {"section", "S"},         {"text", "text of " + hash}, {"hash", hash},
          {"model", "m"},         {"citations", citations}, {"embedding", embedding}};
}

class StoreTest : public ::testing::Test {
 protected:
  std::int64_t stored(const char* sql) { return database->number(sql); }

  const std::unique_ptr<TestedDatabase> database = make_database();
  const std::unique_ptr<WikiStore> target = database->open();
  ForwardingStore store{*target};  // so that each test goes through the wrapper of the seam
};

}  // namespace ossilar::store
