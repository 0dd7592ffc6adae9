// Any number of rows is one statement: its values come as arrays.
#include "ossilar/store/postgresql/facts.h"

#include <utility>

namespace ossilar::store::postgresql {
namespace {

// Selects no row for a page without one. The last WHERE keeps a mark with the same reason from being written
// again.
constexpr const char* kMark =
    "INSERT INTO stale_marks SELECT page_key, new.reason"
    " FROM unnest($2::text[], $3::text[]) AS new (page_id, reason) JOIN pages USING (page_id) WHERE branch = "
    "$1"
    " ON CONFLICT (page_key) DO UPDATE SET reason = excluded.reason"
    " WHERE stale_marks.reason <> excluded.reason";
constexpr const char* kMarks =
    "SELECT page_id, reason FROM stale_marks JOIN pages USING (page_key) WHERE branch = $1";
constexpr const char* kKeepCited =
    "INSERT INTO cited_texts SELECT hash, text FROM unnest($1::text[], $2::bytea[]) AS new (hash, text)"
    " ON CONFLICT DO NOTHING";
constexpr const char* kCite =
    "INSERT INTO cited_by SELECT $1, hash FROM unnest($2::text[]) AS new (hash) ON CONFLICT DO NOTHING";
// A trigger drops the texts that no page cites any more.
constexpr const char* kUncite = "DELETE FROM cited_by WHERE page_key = $1 AND hash <> ALL($2::text[])";
constexpr const char* kCitedText = "SELECT text FROM cited_texts WHERE hash = $1";
constexpr const char* kPutState =
    "INSERT INTO wiki_state VALUES ($1, $2, $3, $4, $5, $6, $7) ON CONFLICT (branch) DO UPDATE SET"
    " last_built_at = excluded.last_built_at, last_commit = excluded.last_commit,"
    " changed_since_build = excluded.changed_since_build, model = excluded.model,"
    " page_count = excluded.page_count, manifest_hash = excluded.manifest_hash";
constexpr const char* kState =
    "SELECT last_built_at, last_commit, changed_since_build, model, page_count, manifest_hash"
    " FROM wiki_state WHERE branch = $1";

constexpr const char* kBranches =
    "SELECT branch FROM (SELECT branch FROM pages UNION SELECT branch FROM page_versions"
    " UNION SELECT branch FROM digests WHERE digest IS NOT NULL UNION SELECT branch FROM wiki_state)"
    " AS known ORDER BY branch COLLATE \"C\"";
constexpr const char* kCitedVersions = "SELECT hash FROM cited_by WHERE page_key = $1";

}  // namespace

Statement marking(const std::string& branch, const std::map<std::string, std::string>& reasons) {
  std::vector<std::string> pages;
  std::vector<std::string> texts;
  for (const auto& [page_id, reason] : reasons) {
    pages.push_back(page_id);
    texts.push_back(reason);
  }
  return {.sql = kMark, .values = {branch, pages, texts}};
}

std::map<std::string, std::string> read_marks(Session& session, const std::string& branch) {
  std::map<std::string, std::string> marks;
  const Result rows = session.run_one({.sql = kMarks, .values = {branch}});
  for (std::size_t at = 0; at < rows.rows(); ++at) marks.emplace(rows.text(at, 0), rows.text(at, 1));
  return marks;
}

// Texts last: the removal of what is not cited any more would take along a new text that nothing cites yet.
void write_cited_texts(Session& session, std::int64_t page_key, const std::set<std::string>& cited,
                       const std::map<std::string, std::string>& texts) {
  const std::vector<std::string> hashes(cited.begin(), cited.end());
  std::vector<std::string> kept;
  std::vector<std::optional<Bytes>> bytes;
  for (const auto& [hash, text] : texts) {
    if (cited.count(hash) == 0) continue;
    kept.push_back(hash);
    bytes.emplace_back(Bytes{text});
  }
  std::vector<Statement> statements;
  statements.push_back({.sql = kCite, .values = {page_key, hashes}});
  statements.push_back({.sql = kUncite, .values = {page_key, hashes}});
  if (!kept.empty()) statements.push_back({.sql = kKeepCited, .values = {kept, bytes}});
  session.send(std::move(statements));
}

std::optional<std::string> read_cited_text(Session& session, const std::string& hash) {
  const Result found = session.run_one({.sql = kCitedText, .values = {hash}});
  return found.rows() == 0 ? std::nullopt : std::optional(found.bytes(0, 0));
}

Statement stating(const std::string& branch, const WikiStateFields& fields) {
  return {.sql = kPutState,
          .values = {branch, fields.last_built_at, fields.last_commit, fields.changed_since_build,
                     fields.model, fields.page_count, fields.manifest_hash}};
}

std::optional<WikiStateFields> read_state(Session& session, const std::string& branch) {
  const Result row = session.run_one({.sql = kState, .values = {branch}});
  if (row.rows() == 0) return std::nullopt;
  return WikiStateFields{.last_built_at = row.text(0, 0),
                         .last_commit = row.text(0, 1),
                         .changed_since_build = row.number(0, 2),
                         .model = row.text(0, 3),
                         .page_count = row.number(0, 4),
                         .manifest_hash = row.text(0, 5)};
}

std::set<std::string> read_cited_versions(Session& session, std::int64_t page_key) {
  const Result rows = session.run_one({.sql = kCitedVersions, .values = {page_key}});
  std::set<std::string> cited;
  for (std::size_t at = 0; at < rows.rows(); ++at) cited.insert(rows.text(at, 0));
  return cited;
}

std::vector<std::string> read_branches(Session& session) {
  const Result rows = session.run_one({.sql = kBranches});
  std::vector<std::string> branches;
  branches.reserve(rows.rows());
  for (std::size_t at = 0; at < rows.rows(); ++at) branches.push_back(rows.text(at, 0));
  return branches;
}

}  // namespace ossilar::store::postgresql
