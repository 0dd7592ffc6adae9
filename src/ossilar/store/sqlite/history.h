// The last versions of each page. Internal to this room; called by operations.h. The functions do what
// WikiStore's of the same meaning say.
//
// Thread-safety: one thread for a connection. Each function is called within a transaction, which the caller
// rolls back when one throws: SQLite::Exception, utils::Error for text that is not UTF-8, DamagedError for
// such text in the store.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

void write_versions(Connection& connection, const std::string& branch, const std::string& page_id,
                    const std::vector<PageVersion>& versions, std::size_t most);
std::vector<PageVersion> read_versions(Connection& connection, const std::string& branch,
                                       const std::string& page_id);
std::optional<std::string> read_version_text(Connection& connection, const std::string& branch,
                                             const std::string& page_id, std::int64_t number);
std::map<std::string, std::string> read_newest_texts(Connection& connection, const std::string& branch,
                                                     const std::vector<std::string>& page_ids);
void renumber_versions(Connection& connection, const std::string& branch, const std::string& from,
                       const std::string& to);

std::set<std::string> read_pages_with_history(Connection& connection, const std::string& branch);
void put_versions(Connection& connection, const std::string& branch, const std::string& page_id,
                  const std::vector<PageVersion>& versions);

}  // namespace ossilar::store
