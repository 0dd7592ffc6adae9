// One table for each kind of fact. Unlike pages and digests they have no revisions and no snapshots: they are
// short, or, as the source records, read once by a process.
//
// All writes are upserts in place. INSERT OR REPLACE would delete the row and add another one, which touches
// more pages of the database, and moves source records away from the order of their paths.
#include "ossilar/store/sqlite/branch_facts.h"

namespace ossilar::store {
namespace {

constexpr const char* kClearMark = "DELETE FROM stale_marks WHERE page_key = ?1";
// Selects no row for a page without one. The last WHERE keeps a mark with the same reason from being written
// again.
constexpr const char* kMark =
    "INSERT INTO stale_marks SELECT page_key, ?3 FROM pages WHERE branch = ?1 AND page_id = ?2"
    " ON CONFLICT DO UPDATE SET reason = excluded.reason WHERE reason != excluded.reason";
constexpr const char* kMarks =
    "SELECT page_id, reason FROM stale_marks JOIN pages USING (page_key) WHERE branch = ?1";
constexpr const char* kKeepCited = "INSERT INTO cited_texts VALUES (?1, ?2) ON CONFLICT DO NOTHING";
constexpr const char* kCite = "INSERT INTO cited_by (page_key, hash) VALUES (?1, ?2)";
// A trigger drops the text when this was the last page that cited it.
constexpr const char* kUncite = "DELETE FROM cited_by WHERE page_key = ?1 AND hash = ?2";
constexpr const char* kCitedByPage = "SELECT hash FROM cited_by WHERE page_key = ?1";
constexpr const char* kCitedText = "SELECT text FROM cited_texts WHERE hash = ?1";
constexpr const char* kPutState =
    "INSERT INTO wiki_state VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7) ON CONFLICT (branch) DO UPDATE SET"
    " last_built_at = excluded.last_built_at, last_commit = excluded.last_commit,"
    " changed_since_build = excluded.changed_since_build, model = excluded.model,"
    " page_count = excluded.page_count, manifest_hash = excluded.manifest_hash";
constexpr const char* kState =
    "SELECT last_built_at, last_commit, changed_since_build, model, page_count, manifest_hash"
    " FROM wiki_state WHERE branch = ?1";
constexpr const char* kOwnLists = "SELECT name, hash FROM own_lists WHERE branch = ?1";
// As with marks, a list with the same hash is not written again.
constexpr const char* kPutOwnList =
    "INSERT INTO own_lists VALUES (?1, ?2, ?3) ON CONFLICT DO UPDATE SET hash = excluded.hash"
    " WHERE hash != excluded.hash";
constexpr const char* kRecords = "SELECT path, record FROM source_records";
// An update keeps the record's rowid. The first ones are written in the order of their paths, so a scan gives
// nearly that order.
constexpr const char* kPutRecord =
    "INSERT INTO source_records VALUES (?1, ?2) ON CONFLICT DO UPDATE SET record = excluded.record";
constexpr const char* kRemoveRecord = "DELETE FROM source_records WHERE path = ?1";

constexpr const char* kBranches =
    "SELECT branch FROM (SELECT branch FROM pages UNION SELECT branch FROM page_versions"
    " UNION SELECT branch FROM digests WHERE digest IS NOT NULL UNION SELECT branch FROM wiki_state)"
    " AS known ORDER BY branch";
constexpr const char* kCitedVersions = "SELECT hash FROM cited_by WHERE page_key = ?1";

}  // namespace

void write_marks(Connection& connection, const std::string& branch, const StaleMarks& reasons) {
  for (const auto& [page_id, reason] : reasons) Query(connection, kMark, branch, page_id, reason).run();
}

void clear_mark(Connection& connection, std::int64_t page_key) {
  Query(connection, kClearMark, page_key).run();
}

StaleMarks read_marks(Connection& connection, const std::string& branch) {
  StaleMarks marks;
  Query rows(connection, kMarks, branch);
  while (rows.next()) marks.emplace(rows.text(0), rows.text(1));
  return marks;
}

void write_cited_texts(Connection& connection, std::int64_t page_key, const std::set<std::string>& cited,
                       const std::map<std::string, std::string>& texts) {
  std::set<std::string> before;
  {
    Query found(connection, kCitedByPage, page_key);
    while (found.next()) before.insert(found.text(0));
  }
  for (const auto& [hash, text] : texts)
    if (cited.count(hash) > 0) Query(connection, kKeepCited, hash, Blob{text}).run();
  for (const std::string& hash : cited)
    if (before.count(hash) == 0) Query(connection, kCite, page_key, hash).run();
  for (const std::string& hash : before)
    if (cited.count(hash) == 0) Query(connection, kUncite, page_key, hash).run();
}

std::optional<std::string> read_cited_text(Connection& connection, const std::string& hash) {
  Query found(connection, kCitedText, hash);
  return found.next() ? std::optional(found.blob(0)) : std::nullopt;
}

void write_state(Connection& connection, const std::string& branch, const WikiStateFields& fields) {
  Query(connection, kPutState, branch, fields.last_built_at, fields.last_commit, fields.changed_since_build,
        fields.model, fields.page_count, fields.manifest_hash)
      .run();
}

std::optional<WikiStateFields> read_state(Connection& connection, const std::string& branch) {
  Query row(connection, kState, branch);
  if (!row.next()) return std::nullopt;
  return WikiStateFields{.last_built_at = row.text(0),
                         .last_commit = row.text(1),
                         .changed_since_build = row.number(2),
                         .model = row.text(3),
                         .page_count = row.number(4),
                         .manifest_hash = row.text(5)};
}

void write_own_lists(Connection& connection, const std::string& branch, const OwnLists& hashes) {
  for (const auto& [name, hash] : hashes) Query(connection, kPutOwnList, branch, name, hash).run();
}

OwnLists read_own_lists(Connection& connection, const std::string& branch) {
  OwnLists hashes;
  Query rows(connection, kOwnLists, branch);
  while (rows.next()) hashes.emplace(rows.text(0), rows.text(1));
  return hashes;
}

void write_records(Connection& connection, const std::map<std::string, std::optional<std::string>>& changes) {
  for (const auto& [path, record] : changes) {
    if (record) {
      Query(connection, kPutRecord, path, *record).run();
    } else {
      Query(connection, kRemoveRecord, path).run();
    }
  }
}

// Views rather than copies: there is a record for each source file.
void read_records(Connection& connection, const WikiStore::TakeRecord& take) {
  Query rows(connection, kRecords);
  while (rows.next()) take(rows.view(0), rows.view(1));
}

std::set<std::string> read_cited_versions(Connection& connection, std::int64_t page_key) {
  std::set<std::string> cited;
  Query rows(connection, kCitedVersions, page_key);
  while (rows.next()) cited.insert(rows.text(0));
  return cited;
}

std::vector<std::string> read_branches(Connection& connection) {
  std::vector<std::string> branches;
  Query rows(connection, kBranches);
  while (rows.next()) branches.push_back(rows.text(0));
  return branches;
}

}  // namespace ossilar::store
