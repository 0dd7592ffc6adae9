// The revision is a counter in the database rather than a time or a rowid: every write transaction that
// changes rows takes a new one under the write lock, so revisions become visible in their order, and a reader
// that has seen N has seen everything up to N. Times of several processes would not promise that.
//
// Each read works on a copy of the snapshot and assigns it at the end, so that a failure in the middle leaves
// entries and revision that belong together.
#include "ossilar/store/sqlite/snapshots.h"

#include <algorithm>

#include "ossilar/store/sqlite/rows.h"
#include "ossilar/store/stored_form.h"

namespace ossilar::store {
namespace {

constexpr const char* kNextRevision = "UPDATE counter SET revision = revision + 1 RETURNING revision";
constexpr const char* kChangedDigests =
    "SELECT revision, page_id, digest FROM digests WHERE branch = ?1 AND revision > ?2 ORDER BY revision";
constexpr const char* kPutDigest =
    "INSERT INTO digests VALUES (?1, ?2, ?3, ?4) ON CONFLICT (branch, page_id)"
    " DO UPDATE SET digest = excluded.digest, revision = excluded.revision";
// The row stays without a text, under a new revision: a reader would not notice a row that is missing.
constexpr const char* kRemoveDigest =
    "UPDATE digests SET digest = NULL, revision = ?3 WHERE branch = ?1 AND page_id = ?2";

// Makes the stored digests those in `digests`; gives the revision up to which the result is known. Takes a
// revision only when something differs, so that a save that changes no digest writes nothing. The texts are
// compared too: a digest that was made again is another object with the same text.
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

// Removals first: a page that was stored again after its removal is in both results, and its row must win.
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
    // The last removal may be later than this change.
    next.revision = std::max(next.revision, rows.number(0));
  }
  last = next;
  return next.entries;
}

StoredRows read_pages_resting_on(Connection& connection, const std::string& branch,
                                 const std::set<std::string>& paths) {
  StoredRows pages;
  for (const std::string& path : paths) {
    Query rows(connection, kPagesRestingOn, branch, path);
    while (rows.next()) pages.set(page_id_of(rows), page_row(rows));
  }
  return pages;
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

// `digests` itself becomes the snapshot: a caller that changes one of many digests and writes again shares
// all others with it, and the comparison skips what is shared.
void write_digests(Connection& connection, Snapshot& last, const std::string& branch,
                   const PageDigests& digests) {
  read_digests(connection, last, branch);
  last.revision = write_differences(connection, branch, last, digests);
  last.entries = digests;
}

}  // namespace ossilar::store
