// What is stored of a branch beside its pages and digests: stale marks, the wiki's state, the lists that are
// our own; and the source index, which all branches share.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// Page id to reason.
using StaleMarks = std::map<std::string, std::string>;
void write_marks(Connection& connection, const std::string& branch, const StaleMarks& reasons);
void clear_mark(Connection& connection, std::int64_t page_key);
StaleMarks read_marks(Connection& connection, const std::string& branch);

void write_state(Connection& connection, const std::string& branch, const WikiStateFields& fields);
std::optional<WikiStateFields> read_state(Connection& connection, const std::string& branch);

// Name of the list to a hash of its text.
using OwnLists = std::map<std::string, std::string>;
void write_own_lists(Connection& connection, const std::string& branch, const OwnLists& hashes);
OwnLists read_own_lists(Connection& connection, const std::string& branch);

// Path to record; none removes it.
void write_records(Connection& connection, const std::map<std::string, std::optional<std::string>>& changes);
void read_records(Connection& connection, const WikiStore::TakeRecord& take);

}  // namespace ossilar::store
