// A page's row between the table `pages` and PageFields. Internal to this room; called by operations.h and
// snapshots.cc.
//
// Thread-safety: one thread for a connection. Every function is called within a transaction, which the caller
// rolls back when one throws (SQLite::Exception, utils::Error, DamagedError).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// Inserts or updates the row and gives its key, which an update keeps. `revision` is next_revision()'s, here
// and below: without a new one, processes that know the row would not read the change.
std::int64_t write_page(Connection& connection, const std::string& branch, const std::string& page_id,
                        const std::string& title, const PageFields& fields, std::int64_t revision);

// Replaces the fields that change when a page file is rewritten around the same authored text. No row, no
// effect.
void restate_row(Connection& connection, const std::string& branch, const std::string& page_id,
                 const std::string& content_hash, const std::vector<Map>& citations, std::int64_t revision);

// The query for the rows of branch ?1 that changed after revision ?2, in the order of their changes. Its
// columns are the revision and those that page_id_of() and page_row() read.
extern const char* const kChangedPages;
// The query for the rows of branch ?1 that rest on the file ?2, with the same columns.
extern const char* const kPagesRestingOn;
// The query for the pages of branch ?1 that were removed after revision ?2, in the order of their removal:
// the revision and the page id. A page that was stored again since then is listed too, and is among the
// changed pages as well.
extern const char* const kRemovedPages;

// The key of the page's row, and its complete build cache; none for a page without a row.
std::optional<std::int64_t> row_key(Connection& connection, const std::string& branch,
                                    const std::string& page_id);
std::optional<std::string> read_build_cache(Connection& connection, const std::string& branch,
                                            const std::string& page_id);

// Removes the row, and by cascade its chunks, its mark and its note of due words. Notes the removal for
// processes that know the row.
void remove_row(Connection& connection, const std::string& branch, const std::string& page_id,
                std::int64_t revision);

// Of the current row of kChangedPages: its page id, and the row as StoredRows have it. Throw DamagedError.
std::string page_id_of(const Query& rows);
Map page_row(const Query& rows);

// None for a page without a row.
std::optional<StoredPage> read_stored_page(Connection& connection, const std::string& branch,
                                           const std::string& page_id);

}  // namespace ossilar::store
