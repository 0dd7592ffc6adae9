// Numbers only grow, so a number that a person has read names the same version for as long as it is kept.
#include "ossilar/store/sqlite/history.h"

namespace ossilar::store {
namespace {

constexpr const char* kNewest =
    "SELECT number, version FROM page_versions WHERE branch = ?1 AND page_id = ?2"
    " ORDER BY number DESC LIMIT 1";
constexpr const char* kAdd = "INSERT INTO page_versions VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)";
// The newest of those that go. Counted and not computed from the numbers, which may have a gap where the
// versions of one page were moved behind those of another.
constexpr const char* kDropOldest =
    "DELETE FROM page_versions WHERE branch = ?1 AND page_id = ?2 AND number <="
    " (SELECT number FROM page_versions WHERE branch = ?1 AND page_id = ?2"
    " ORDER BY number DESC LIMIT 1 OFFSET ?3)";
constexpr const char* kVersions =
    "SELECT number, version, at, commit_id, client, action FROM page_versions"
    " WHERE branch = ?1 AND page_id = ?2 ORDER BY number DESC";
constexpr const char* kText =
    "SELECT text FROM page_versions WHERE branch = ?1 AND page_id = ?2 AND number = ?3";
constexpr const char* kNewestText =
    "SELECT text FROM page_versions WHERE branch = ?1 AND page_id = ?2 ORDER BY number DESC LIMIT 1";
constexpr const char* kMove =
    "UPDATE page_versions SET page_id = ?3, number = number + ?4 WHERE branch = ?1 AND page_id = ?2";

struct Newest {
  std::int64_t number = 0;
  std::string version = {};
};

Newest newest_of(Connection& connection, const std::string& branch, const std::string& page_id) {
  Query row(connection, kNewest, branch, page_id);
  if (!row.next()) return {};
  return {.number = row.number(0), .version = row.text(1)};
}

constexpr const char* kPagesWithHistory = "SELECT DISTINCT page_id FROM page_versions WHERE branch = ?1";
constexpr const char* kDropAll = "DELETE FROM page_versions WHERE branch = ?1 AND page_id = ?2";

}  // namespace

void write_versions(Connection& connection, const std::string& branch, const std::string& page_id,
                    const std::vector<PageVersion>& versions, std::size_t most) {
  Newest newest = newest_of(connection, branch, page_id);
  for (const PageVersion& added : versions) {
    if (added.version == newest.version) continue;
    newest = {.number = newest.number + 1, .version = added.version};
    Query(connection, kAdd, branch, page_id, newest.number, added.version, added.at, added.commit,
          added.client, added.action, added.text)
        .run();
  }
  Query(connection, kDropOldest, branch, page_id, static_cast<std::int64_t>(most)).run();
}

std::vector<PageVersion> read_versions(Connection& connection, const std::string& branch,
                                       const std::string& page_id) {
  std::vector<PageVersion> versions;
  Query rows(connection, kVersions, branch, page_id);
  while (rows.next()) {
    versions.push_back({.number = rows.number(0),
                        .version = rows.text(1),
                        .at = rows.text(2),
                        .commit = rows.text(3),
                        .client = rows.text(4),
                        .action = rows.text(5)});
  }
  return versions;
}

std::optional<std::string> read_version_text(Connection& connection, const std::string& branch,
                                             const std::string& page_id, std::int64_t number) {
  Query row(connection, kText, branch, page_id, number);
  return row.next() ? std::optional(row.text(0)) : std::nullopt;
}

std::map<std::string, std::string> read_newest_texts(Connection& connection, const std::string& branch,
                                                     const std::vector<std::string>& page_ids) {
  std::map<std::string, std::string> texts;
  for (const std::string& page_id : page_ids) {
    Query row(connection, kNewestText, branch, page_id);
    if (row.next()) texts.emplace(page_id, row.text(0));
  }
  return texts;
}

void renumber_versions(Connection& connection, const std::string& branch, const std::string& from,
                       const std::string& to) {
  if (from == to) return;
  Query(connection, kMove, branch, from, to, newest_of(connection, branch, to).number).run();
}

std::set<std::string> read_pages_with_history(Connection& connection, const std::string& branch) {
  std::set<std::string> pages;
  Query rows(connection, kPagesWithHistory, branch);
  while (rows.next()) pages.insert(rows.text(0));
  return pages;
}

void put_versions(Connection& connection, const std::string& branch, const std::string& page_id,
                  const std::vector<PageVersion>& versions) {
  Query(connection, kDropAll, branch, page_id).run();
  for (const PageVersion& each : versions) {
    Query(connection, kAdd, branch, page_id, each.number, each.version, each.at, each.commit, each.client,
          each.action, each.text)
        .run();
  }
}

}  // namespace ossilar::store
