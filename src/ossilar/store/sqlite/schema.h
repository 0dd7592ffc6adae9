// Opening a database file: whether it is ours, its version, its tables, its settings. Internal to this room:
// sqlite_store.cc opens the writing connection with it, damage.cc compares the tables.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// The application id in the file's header, "Ossl": it tells our databases from those of other programs.
inline constexpr int kApplicationId = 0x4f73736c;

// A connection for writing to `file`, which is created where it is missing and has the present tables when
// this returns; an older schema is migrated in one transaction. A file that is not ours or has a newer schema
// is refused before a byte of it is written. Throws SQLite::Exception, utils::Error.
//
// Thread-safety: may be called from any thread; several threads and processes may open one new file at once.
Connection open_database(const std::filesystem::path& file);

// The first table or index that is missing or was changed, such as "table pages"; none when all are as this
// program makes them. Tables, indexes and triggers beside ours are not looked for.
std::optional<std::string> missing_from_schema(Connection& connection);

}  // namespace ossilar::store
