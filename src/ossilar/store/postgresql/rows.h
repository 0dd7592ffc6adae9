// A page's row between the table `pages` and PageFields, and the snapshots of pages and digests, which are
// read by what changed. Internal to this room; called by operations.h. The functions do what WikiStore's of
// the same meaning say.
//
// Thread-safety: one thread for a session. Errors: ServerError, ConnectionLost, DamagedError, utils::Error;
// what a function that threw has written must be rolled back, and the snapshots dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ossilar/store/postgresql/session.h"
#include "ossilar/store/repository.h"

namespace ossilar::store::postgresql {

enum class Mark { clear, keep };
std::int64_t write_page(Session& session, const std::string& branch, const std::string& page_id,
                        const std::string& title, const PageFields& fields, Mark mark);
void restate_row(Session& session, const std::string& branch, const std::string& page_id,
                 const std::string& content_hash, const std::vector<Map>& citations);
void remove_row(Session& session, const std::string& branch, const std::string& page_id);
std::optional<std::int64_t> row_key(Session& session, const std::string& branch, const std::string& page_id);
std::optional<std::string> read_build_cache(Session& session, const std::string& branch,
                                            const std::string& page_id);

// Whether the page cites one of these files, did so once, or has it among its source hashes.
bool rests_on(const Map& row, const std::set<std::string>& paths);

// The statements that read what changed of the rows and digests of a branch since the snapshots, and what
// brings these to `revision` by their results, the first of which is at `at`. So a transaction that begins or
// ends reads them in passing.
Statement reading_revision();
std::vector<Statement> reading_pages(const std::string& branch, const Snapshots& last);
void take_pages(const std::string& branch, Snapshots& last, const std::vector<Result>& results,
                std::size_t at, std::int64_t revision);
std::vector<Statement> reading_digests(const std::string& branch, const Snapshots& last);
void take_digests(const std::string& branch, Snapshots& last, const std::vector<Result>& results,
                  std::size_t at, std::int64_t revision);

StoredRows read_pages(Session& session, const std::string& branch);
PageDigests read_digests(Session& session, const std::string& branch);
void write_digests(Session& session, const std::string& branch, const PageDigests& digests,
                   const std::map<std::string, std::string>& stale);

// None for a page without a row.
std::optional<StoredPage> read_stored_page(Session& session, const std::string& branch,
                                           const std::string& page_id);

}  // namespace ossilar::store::postgresql
