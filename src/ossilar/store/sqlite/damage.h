// Looking for damage in a whole database.
#pragma once

#include <optional>
#include <string>

#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// What is wrong with the database, or none: SQLite's own checks, the schema, the words against the chunks,
// and that every text and every JSON value can be read. Reads all of it, and needs a transaction that may
// write.
std::optional<std::string> first_damage(Connection& connection);

}  // namespace ossilar::store
