// Snapshots in memory of a branch's pages and digests, brought up to date by revisions: a read costs what
// changed since the last one, not what is stored. Internal to this room; called by operations.h, held by
// sqlite_store.cc.
//
// Thread-safety: as plain values; sqlite_store.cc guards the shared ones. Each function is called within a
// transaction. One that throws (SQLite::Exception, DamagedError, utils::Error) leaves the snapshot right for
// its revision. What it read or wrote may not be committed yet: if the transaction is rolled back, drop the
// snapshot.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"
#include "ossilar/utils/snapshot_map.h"

namespace ossilar::store {

// The entries of one kind of rows of a branch, as they were at a revision; everything up to it is included.
struct Snapshot {
  utils::SnapshotMap<Map> entries;
  std::int64_t revision = 0;
};

// Snapshots by branch. Copies are cheap: the entries are shared (utils/snapshot_map.h).
struct Snapshots {
  std::map<std::string, Snapshot> pages;
  std::map<std::string, Snapshot> digests;
};

// The revision for the rows that the present write changes: one more than the last. It changes the counter in
// the database; if the transaction is rolled back, the number is used again.
std::int64_t next_revision(Connection& connection);

// Bring `last` up to date and give its entries, which are what is stored now.
StoredRows read_pages(Connection& connection, Snapshot& last, const std::string& branch);
PageDigests read_digests(Connection& connection, Snapshot& last, const std::string& branch);

// The rows of the branch that rest on one of these files. No snapshot is needed, nor brought up to date.
StoredRows read_pages_resting_on(Connection& connection, const std::string& branch,
                                 const std::set<std::string>& paths);

// Makes `digests` the stored digests of the branch. Brings `last` up to date first, writes only what differs
// from it, and leaves the new digests in it.
void write_digests(Connection& connection, Snapshot& last, const std::string& branch,
                   const PageDigests& digests);

}  // namespace ossilar::store
