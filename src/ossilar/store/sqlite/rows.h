// A page's row between the database and the fields of the contract. Internal to this room.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// `value` as the JSON text that is stored. Throws utils::Error or Map::exception for what could not be read
// back: text that is not UTF-8, nesting too deep. `what` names it.
std::string stored_json(const Map& value, const std::string& what);

// What stored_json() made. Throws DamagedError for text that it did not make.
Map read_json(const std::string& text, const std::string& what);

// Inserts or updates the row and gives its key.
std::int64_t write_page(Connection& connection, const std::string& branch, const std::string& page_id,
                        const std::string& title, const PageFields& fields, std::int64_t revision);

// Replaces of the row what changes when its page file is written anew with the same text of its author.
void restate_row(Connection& connection, const std::string& branch, const std::string& page_id,
                 const std::string& content_hash, const std::vector<Map>& citations, std::int64_t revision);

// The query for the rows of branch ?1 that changed after revision ?2, in the order of their changes: the
// revision, then the columns that the two functions read.
extern const char* const kChangedPages;
// The query for the pages of branch ?1 that were removed after revision ?2, in the order of their removal:
// the revision and the page id. One that came back meanwhile is among the changed pages too.
extern const char* const kRemovedPages;

// The key of the page's row, and what the row keeps for the next build; none for a page without a row.
std::optional<std::int64_t> row_key(Connection& connection, const std::string& branch,
                                    const std::string& page_id);
std::optional<std::string> read_build_cache(Connection& connection, const std::string& branch,
                                            const std::string& page_id);

// Removes the row; what refers to it goes with it.
void remove_row(Connection& connection, const std::string& branch, const std::string& page_id,
                std::int64_t revision);

std::string page_id_of(const Query& rows);
Map page_row(const Query& rows);

}  // namespace ossilar::store
