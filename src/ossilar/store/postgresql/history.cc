// Numbers only grow, so a number that a person has read names the same version for as long as it is kept.
#include "ossilar/store/postgresql/history.h"

#include <utility>

namespace ossilar::store::postgresql {
namespace {

// Adds nothing where the newest version has the same name.
constexpr const char* kAdd =
    "INSERT INTO page_versions SELECT $1, $2, coalesce(max(number), 0) + 1, $3, $4, $5, $6, $7, $8"
    " FROM page_versions WHERE branch = $1 AND page_id = $2"
    " HAVING (SELECT version FROM page_versions WHERE branch = $1 AND page_id = $2"
    " ORDER BY number DESC LIMIT 1) IS DISTINCT FROM $3";
// The newest of those that go. Counted and not computed from the numbers, which may have a gap where the
// versions of one page were moved behind those of another.
constexpr const char* kDropOldest =
    "DELETE FROM page_versions WHERE branch = $1 AND page_id = $2 AND number <="
    " (SELECT number FROM page_versions WHERE branch = $1 AND page_id = $2"
    " ORDER BY number DESC LIMIT 1 OFFSET $3)";
constexpr const char* kVersions =
    "SELECT number, version, at, commit_id, client, action FROM page_versions"
    " WHERE branch = $1 AND page_id = $2 ORDER BY number DESC";
constexpr const char* kText =
    "SELECT text FROM page_versions WHERE branch = $1 AND page_id = $2 AND number = $3";
constexpr const char* kNewestTexts =
    "SELECT DISTINCT ON (page_id) page_id, text FROM page_versions"
    " WHERE branch = $1 AND page_id = ANY($2::text[]) ORDER BY page_id, number DESC";
constexpr const char* kMove =
    "UPDATE page_versions SET page_id = $3, number = number +"
    " (SELECT coalesce(max(number), 0) FROM page_versions WHERE branch = $1 AND page_id = $3)"
    " WHERE branch = $1 AND page_id = $2";

constexpr const char* kPagesWithHistory = "SELECT DISTINCT page_id FROM page_versions WHERE branch = $1";
constexpr const char* kDropAll = "DELETE FROM page_versions WHERE branch = $1 AND page_id = $2";
constexpr const char* kPut = "INSERT INTO page_versions VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9)";

}  // namespace

void write_versions(Session& session, const std::string& branch, const std::string& page_id,
                    const std::vector<PageVersion>& versions, std::size_t most) {
  std::vector<Statement> statements;
  statements.reserve(versions.size() + 1);
  for (const PageVersion& added : versions) {
    statements.push_back({.sql = kAdd,
                          .values = {branch, page_id, added.version, added.at, added.commit, added.client,
                                     added.action, added.text}});
  }
  statements.push_back({.sql = kDropOldest, .values = {branch, page_id, static_cast<std::int64_t>(most)}});
  session.send(std::move(statements));
}

std::vector<PageVersion> read_versions(Session& session, const std::string& branch,
                                       const std::string& page_id) {
  const Result rows = session.run_one({.sql = kVersions, .values = {branch, page_id}});
  std::vector<PageVersion> versions;
  versions.reserve(rows.rows());
  for (std::size_t at = 0; at < rows.rows(); ++at) {
    versions.push_back({.number = rows.number(at, 0),
                        .version = rows.text(at, 1),
                        .at = rows.text(at, 2),
                        .commit = rows.text(at, 3),
                        .client = rows.text(at, 4),
                        .action = rows.text(at, 5)});
  }
  return versions;
}

std::optional<std::string> read_version_text(Session& session, const std::string& branch,
                                             const std::string& page_id, std::int64_t number) {
  const Result row = session.run_one({.sql = kText, .values = {branch, page_id, number}});
  return row.rows() == 0 ? std::nullopt : std::optional(row.text(0, 0));
}

std::map<std::string, std::string> read_newest_texts(Session& session, const std::string& branch,
                                                     const std::vector<std::string>& page_ids) {
  const Result rows = session.run_one({.sql = kNewestTexts, .values = {branch, page_ids}});
  std::map<std::string, std::string> texts;
  for (std::size_t at = 0; at < rows.rows(); ++at) texts.emplace(rows.text(at, 0), rows.text(at, 1));
  return texts;
}

void renumber_versions(Session& session, const std::string& branch, const std::string& from,
                       const std::string& to) {
  if (from != to) session.run_one({.sql = kMove, .values = {branch, from, to}});
}

std::set<std::string> read_pages_with_history(Session& session, const std::string& branch) {
  const Result rows = session.run_one({.sql = kPagesWithHistory, .values = {branch}});
  std::set<std::string> pages;
  for (std::size_t at = 0; at < rows.rows(); ++at) pages.insert(rows.text(at, 0));
  return pages;
}

void put_versions(Session& session, const std::string& branch, const std::string& page_id,
                  const std::vector<PageVersion>& versions) {
  std::vector<Statement> statements;
  statements.reserve(versions.size() + 1);
  statements.push_back({.sql = kDropAll, .values = {branch, page_id}});
  for (const PageVersion& each : versions) {
    statements.push_back({.sql = kPut,
                          .values = {branch, page_id, each.number, each.version, each.at, each.commit,
                                     each.client, each.action, each.text}});
  }
  session.send(std::move(statements));
}

}  // namespace ossilar::store::postgresql
