// What was read last of a branch's pages and digests, brought up to date by revisions: a read costs what
// changed since, not what is stored.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"
#include "ossilar/utils/snapshot_map.h"

namespace ossilar::store {

// What was read last of one kind of rows of a branch, and the revision up to which it was read.
struct Snapshot {
  utils::SnapshotMap<Map> entries;
  std::int64_t revision = 0;
};

// Snapshots by branch.
struct Snapshots {
  std::map<std::string, Snapshot> pages;
  std::map<std::string, Snapshot> digests;
};

// The revision of a write transaction that is about to change rows: one more than the last.
std::int64_t next_revision(Connection& connection);

// These bring `last` up to date and give what is stored now.
StoredRows read_pages(Connection& connection, Snapshot& last, const std::string& branch);
PageDigests read_digests(Connection& connection, Snapshot& last, const std::string& branch);

// Makes the stored digests those in `digests`, writing only what differs from `last`, which is brought up to
// date first.
void write_digests(Connection& connection, Snapshot& last, const std::string& branch,
                   const PageDigests& digests);

}  // namespace ossilar::store
