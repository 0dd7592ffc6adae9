// What is stored of a branch beside its pages and digests: stale marks, the wiki's state, notes of own lists;
// and the records of the source index, which all branches share. Internal to this room; called by
// operations.h. The functions do what WikiStore's of the same meaning say.
//
// Thread-safety: one thread for a connection. Each function is called within a transaction, which the caller
// rolls back when one throws: SQLite::Exception, utils::Error for text that is not UTF-8, DamagedError for
// such text in the store.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// Page id to reason. A mark for a page without a row is ignored; a page's later mark replaces the earlier
// one.
using StaleMarks = std::map<std::string, std::string>;
void write_marks(Connection& connection, const std::string& branch, const StaleMarks& reasons);
void clear_mark(Connection& connection, std::int64_t page_key);
StaleMarks read_marks(Connection& connection, const std::string& branch);

// The texts of cited files, any bytes, by the hash of their version.
void write_cited_texts(Connection& connection, std::int64_t page_key, const std::set<std::string>& cited,
                       const std::map<std::string, std::string>& texts);
std::optional<std::string> read_cited_text(Connection& connection, const std::string& hash);

void write_state(Connection& connection, const std::string& branch, const WikiStateFields& fields);
std::optional<WikiStateFields> read_state(Connection& connection, const std::string& branch);

// File name of a list to a hash of its text. Writing adds and replaces, and removes none.
using OwnLists = std::map<std::string, std::string>;
void write_own_lists(Connection& connection, const std::string& branch, const OwnLists& hashes);
OwnLists read_own_lists(Connection& connection, const std::string& branch);

// Path to record; none removes it.
void write_records(Connection& connection, const std::map<std::string, std::optional<std::string>>& changes);
void read_records(Connection& connection, const WikiStore::TakeRecord& take);

std::set<std::string> read_cited_versions(Connection& connection, std::int64_t page_key);
std::vector<std::string> read_branches(Connection& connection);

}  // namespace ossilar::store
