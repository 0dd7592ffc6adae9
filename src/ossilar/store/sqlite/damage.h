// Checking a whole database for damage. Internal to this room; behind WikiStore::damage(), which `ossilar
// check` asks.
#pragma once

#include <optional>
#include <string>

#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// The first damage found, in words, or none: SQLite's own checks, the schema, the words against the chunks,
// and whether every text, vector and JSON value can be read. What makes reading itself fail is thrown:
// DamagedError, or SQLite::Exception, which means damage for some codes (see connection.h). Repairs nothing.
//
// Reads the whole database, and needs a transaction that may write: FTS5's check has the form of an INSERT.
// For one thread, with `connection` to itself.
std::optional<std::string> first_damage(Connection& connection);

}  // namespace ossilar::store
