// The database that the tests of the store's contract run on. Each store's test program defines
// make_database(), so that every case runs over every store.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "ossilar/store/repository.h"
#include "ossilar/store/write_lock.h"

namespace ossilar::store {

class TestedDatabase {
 public:
  TestedDatabase() = default;
  TestedDatabase(const TestedDatabase&) = delete;
  TestedDatabase& operator=(const TestedDatabase&) = delete;
  virtual ~TestedDatabase() = default;

  // One more store over the same database, as another process has one.
  virtual std::unique_ptr<WikiStore> open() = 0;
  // The write lock of "main", as another process has it.
  virtual std::unique_ptr<WriteLock> open_lock(std::chrono::milliseconds timeout) = 0;
  // A number read past the stores and their snapshots.
  virtual std::int64_t number(const std::string& sql) = 0;
  // How messages name the database.
  virtual std::string name() = 0;
};

// A new, empty one.
std::unique_ptr<TestedDatabase> make_database();

}  // namespace ossilar::store
