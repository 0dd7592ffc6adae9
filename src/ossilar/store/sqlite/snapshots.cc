#include "ossilar/store/sqlite/snapshots.h"

#include <algorithm>

#include "ossilar/store/sqlite/rows.h"

namespace ossilar::store {
namespace {

constexpr const char* kNextRevision = "UPDATE counter SET revision = revision + 1 RETURNING revision";
constexpr const char* kChangedDigests =
    "SELECT revision, page_id, digest FROM digests WHERE branch = ?1 AND revision > ?2 ORDER BY revision";
constexpr const char* kPutDigest =
    "INSERT INTO digests VALUES (?1, ?2, ?3, ?4) ON CONFLICT (branch, page_id)"
    " DO UPDATE SET digest = excluded.digest, revision = excluded.revision";
constexpr const char* kRemoveDigest =
    "UPDATE digests SET digest = NULL, revision = ?3 WHERE branch = ?1 AND page_id = ?2";

// Makes the stored digests those in `digests`; gives the revision that they then have.
std::int64_t write_differences(Connection& connection, const std::string& branch, const Snapshot& stored,
                               const PageDigests& digests) {
  std::int64_t revision = 0;
  const auto revision_of_change = [&] {
    return revision = revision != 0 ? revision : next_revision(connection);
  };
  for_each_difference(stored.entries, digests,
                      [&](const std::string& page_id, const Map* before, const Map* after) {
                        if (after == nullptr) {
                          Query(connection, kRemoveDigest, branch, page_id, revision_of_change()).run();
                        } else if (before == nullptr || *before != *after) {
                          Query(connection, kPutDigest, branch, page_id,
                                stored_json(*after, "the digest of " + page_id), revision_of_change())
                              .run();
                        }
                      });
  return revision != 0 ? revision : stored.revision;
}

}  // namespace

std::int64_t next_revision(Connection& connection) {
  Query query(connection, kNextRevision);
  query.next();
  return query.number(0);
}

// Removals first: a page that came back after its removal has a row.
StoredRows read_pages(Connection& connection, Snapshot& last, const std::string& branch) {
  Snapshot next = last;
  Query removed(connection, kRemovedPages, branch, last.revision);
  while (removed.next()) {
    next.entries.erase(removed.text(1));
    next.revision = removed.number(0);
  }
  Query rows(connection, kChangedPages, branch, last.revision);
  while (rows.next()) {
    next.entries.set(page_id_of(rows), page_row(rows));
    next.revision = std::max(next.revision, rows.number(0));
  }
  last = next;
  return next.entries;
}

PageDigests read_digests(Connection& connection, Snapshot& last, const std::string& branch) {
  Snapshot next = last;
  Query rows(connection, kChangedDigests, branch, next.revision);
  while (rows.next()) {
    if (rows.is_null(2)) {
      next.entries.erase(rows.text(1));
    } else {
      next.entries.set(rows.text(1), read_json(rows.text(2), "the digest of " + rows.text(1)));
    }
    next.revision = rows.number(0);
  }
  last = next;
  return next.entries;
}

// What was written becomes the snapshot that the next call compares with, so that a caller who changes one
// digest of many and writes again shares all others with it.
void write_digests(Connection& connection, Snapshot& last, const std::string& branch,
                   const PageDigests& digests) {
  read_digests(connection, last, branch);
  last.revision = write_differences(connection, branch, last, digests);
  last.entries = digests;
}

}  // namespace ossilar::store
