// Opening a database file: whose it is, its version, its tables. Internal to this room.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// In the file's header, so that `file` and other programs can tell what it is: "Ossl".
inline constexpr int kApplicationId = 0x4f73736c;

// A connection for writing to `file`, whose tables are as this program knows them when it returns. A file
// that is not ours or of a newer schema is refused before a byte of it is written. Throws SQLite::Exception,
// utils::Error.
Connection open_database(const std::filesystem::path& file);

// The first of the tables and indexes that is not there as it was made, or none.
std::optional<std::string> missing_from_schema(Connection& connection);

}  // namespace ossilar::store
