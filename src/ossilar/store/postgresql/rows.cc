// A process holds all rows of its branch, so what is large and rarely asked for is left out while reading:
// symbols, and the parts of the build cache that repeat the page's text. PostgreSQL would fail on a build
// cache that is no JSON, so the short one is made here and stored beside the whole one.
#include "ossilar/store/postgresql/rows.h"

#include <algorithm>
#include <array>
#include <utility>

#include "ossilar/store/postgresql/facts.h"
#include "ossilar/store/stored_form.h"

namespace ossilar::store::postgresql {
namespace {

// The keys of a row in their order. They are the columns of kChangedPages from kFirstColumn on.
constexpr std::array kKeys{"page_id",        "title",        "description",  "importance",    "level",
                           "parent_section", "rel_path",     "source_files", "source_hashes", "related_pages",
                           "citations",      "content_hash", "model",        "status",        "summary",
                           "build_cache",    "page_type"};
constexpr std::string_view kNumberKey = "level";
constexpr int kFirstColumn = 1;

constexpr const char* kUpsertPage =
    "INSERT INTO pages (branch, page_id, title, description, importance, level, parent_section, rel_path,"
    " source_files, source_hashes, symbols, related_pages, citations, content_hash, model, status, summary,"
    " build_cache, short_cache, title_words, files, page_type, revision)"
    " VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13, $14, $15, $16, $17, $18, $19, $20, $21,"
    " $22, $23)"
    " ON CONFLICT (branch, page_id) DO UPDATE SET title = excluded.title, description = excluded.description,"
    " importance = excluded.importance, level = excluded.level, parent_section = excluded.parent_section,"
    " rel_path = excluded.rel_path, source_files = excluded.source_files,"
    " source_hashes = excluded.source_hashes, symbols = excluded.symbols,"
    " related_pages = excluded.related_pages, citations = excluded.citations,"
    " content_hash = excluded.content_hash, model = excluded.model, status = excluded.status,"
    " summary = excluded.summary, build_cache = excluded.build_cache, short_cache = excluded.short_cache,"
    " title_words = excluded.title_words, files = excluded.files, page_type = excluded.page_type,"
    " revision = excluded.revision"
    " RETURNING page_key";
constexpr const char* kClearMark =
    "DELETE FROM stale_marks USING pages WHERE stale_marks.page_key = pages.page_key AND branch = $1 AND "
    "page_id = $2";
constexpr const char* kRestatePage =
    "UPDATE pages SET content_hash = $3, citations = $4, revision = $5 WHERE branch = $1 AND page_id = $2";
// A page may be removed, stored and removed again; only its last removal counts. Chunks and mark go with the
// row.
constexpr const char* kRemovePage =
    "WITH gone AS (DELETE FROM pages WHERE branch = $1 AND page_id = $2 RETURNING page_id)"
    " INSERT INTO removed_pages SELECT $1, page_id, $3 FROM gone"
    " ON CONFLICT (branch, page_id) DO UPDATE SET revision = excluded.revision";
constexpr const char* kPageKey = "SELECT page_key FROM pages WHERE branch = $1 AND page_id = $2";
constexpr const char* kBuildCache = "SELECT build_cache FROM pages WHERE branch = $1 AND page_id = $2";

constexpr const char* kRevision = "SELECT revision FROM counter";
constexpr const char* kRemovedPages = "SELECT page_id FROM removed_pages WHERE branch = $1 AND revision > $2";
constexpr const char* kChangedPages =
    "SELECT revision, page_id, title, description, importance, level, parent_section, rel_path, source_files,"
    " source_hashes, related_pages, citations, content_hash, model, status, summary, short_cache, page_type"
    " FROM pages WHERE branch = $1 AND revision > $2";
constexpr const char* kChangedDigests =
    "SELECT page_id, digest FROM digests WHERE branch = $1 AND revision > $2";
constexpr const char* kPutDigests =
    "INSERT INTO digests SELECT $1, page_id, digest, $4 FROM unnest($2::text[], $3::text[]) AS new (page_id, "
    "digest)"
    " ON CONFLICT (branch, page_id) DO UPDATE SET digest = excluded.digest, revision = excluded.revision";
// The row stays without a text, under a new revision: a reader would not notice a row that is missing.
constexpr const char* kRemoveDigests =
    "UPDATE digests SET digest = NULL, revision = $3 WHERE branch = $1 AND page_id = ANY($2::text[])";

// The build cache as rows have it. One that is no JSON is left as it is.
std::string short_cache(const std::string& build_cache) {
  Map cache = Map::parse(build_cache, nullptr, false);
  if (!cache.is_object()) return build_cache;
  for (const char* key : {"prose", "sections", "diagrams", "versions"}) cache.erase(key);
  return cache.dump();
}

Map page_row(const Result& rows, std::size_t at) {
  Map row = Map::object();
  auto& members = row.get_ref<Map::object_t&>();
  members.reserve(kKeys.size());
  int column = kFirstColumn;
  for (const char* key : kKeys) {
    members.emplace_back(key, kNumberKey == key ? Map(rows.number(at, column)) : Map(rows.text(at, column)));
    ++column;
  }
  return row;
}

std::int64_t known_revision(const std::map<std::string, Snapshot>& snapshots, const std::string& branch) {
  const auto found = snapshots.find(branch);
  return found == snapshots.end() ? 0 : found->second.revision;
}

using Reading = std::vector<Statement> (*)(const std::string& branch, const Snapshots& last);
using Taking = void (*)(const std::string& branch, Snapshots& last, const std::vector<Result>& results,
                        std::size_t at, std::int64_t revision);

// Brings a snapshot up to date. A counter below the snapshot's revision is that of a database that was
// restored from a copy: the snapshot is of rows that are not there any more.
void read_news(Session& session, const std::string& branch, Snapshot& last, Reading reading, Taking take) {
  if (session.is_in_transaction()) {
    take(branch, session.last(), session.run(reading(branch, session.last())), 0, session.revision());
    return;
  }
  for (;;) {
    std::vector<Statement> statements = reading(branch, session.last());
    statements.insert(statements.begin(), Statement{.sql = kRevision});
    const std::vector<Result> results = session.read_together(std::move(statements));
    const std::int64_t revision = results.front().number(0, 0);
    if (revision >= last.revision) return take(branch, session.last(), results, 1, revision);
    last = {};
  }
}

constexpr const char* kStoredPage =
    "SELECT title, description, importance, CAST(level AS TEXT), parent_section, rel_path, source_files,"
    " source_hashes, symbols, related_pages, citations, content_hash, model, status, summary, build_cache,"
    " page_type FROM pages WHERE branch = $1 AND page_id = $2";
constexpr int kStoredColumns = 17;

}  // namespace

std::int64_t write_page(Session& session, const std::string& branch, const std::string& page_id,
                        const std::string& title, const PageFields& fields, Mark mark) {
  std::vector<Value> values{branch,
                            page_id,
                            title,
                            fields.description,
                            fields.importance,
                            fields.level,
                            fields.parent_section,
                            fields.rel_path,
                            stored_json(fields.source_files, "source_files"),
                            stored_json(fields.source_hashes, "source_hashes"),
                            stored_json(fields.symbols, "symbols"),
                            stored_json(fields.related_pages, "related_pages"),
                            stored_json(fields.citations, "citations"),
                            fields.content_hash,
                            fields.model,
                            fields.status,
                            fields.summary,
                            fields.build_cache,
                            short_cache(fields.build_cache),
                            spelled_out(title),
                            fields.source_files,
                            fields.page_type,
                            session.next_revision()};
  std::vector<Statement> statements;
  statements.push_back({.sql = kUpsertPage, .values = std::move(values)});
  if (mark == Mark::clear) statements.push_back({.sql = kClearMark, .values = {branch, page_id}});
  return session.run(std::move(statements)).front().number(0, 0);
}

void restate_row(Session& session, const std::string& branch, const std::string& page_id,
                 const std::string& content_hash, const std::vector<Map>& citations) {
  std::vector<Value> values{branch, page_id, content_hash, stored_json(citations, "citations"),
                            session.next_revision()};
  session.run_one({.sql = kRestatePage, .values = std::move(values)});
}

void remove_row(Session& session, const std::string& branch, const std::string& page_id) {
  session.run_one({.sql = kRemovePage, .values = {branch, page_id, session.next_revision()}});
}

std::optional<std::int64_t> row_key(Session& session, const std::string& branch, const std::string& page_id) {
  const Result row = session.run_one({.sql = kPageKey, .values = {branch, page_id}});
  return row.rows() == 0 ? std::nullopt : std::optional(row.number(0, 0));
}

bool rests_on(const Map& row, const std::set<std::string>& paths) {
  const auto is_wanted = [&](const std::string& path) { return paths.count(path) > 0; };
  const auto any_path = [&](const Map& citations) {
    return std::any_of(citations.begin(), citations.end(), [&](const Map& citation) {
      return citation.is_object() && is_wanted(utils::string_member(citation, "path"));
    });
  };
  const Map hashes = utils::json_member(row, "source_hashes");
  for (const auto& [path, hash] : hashes.items())
    if (is_wanted(path)) return true;
  const Map cache = Map::parse(utils::string_member(row, "build_cache"), nullptr, false);
  return any_path(utils::json_member(row, "citations")) || any_path(utils::member(cache, "lost"));
}

std::optional<std::string> read_build_cache(Session& session, const std::string& branch,
                                            const std::string& page_id) {
  const Result row = session.run_one({.sql = kBuildCache, .values = {branch, page_id}});
  return row.rows() == 0 ? std::nullopt : std::optional(row.text(0, 0));
}

Statement reading_revision() { return {.sql = kRevision}; }

std::vector<Statement> reading_pages(const std::string& branch, const Snapshots& last) {
  const std::int64_t known = known_revision(last.pages, branch);
  std::vector<Statement> statements;
  statements.push_back({.sql = kRemovedPages, .values = {branch, known}});
  statements.push_back({.sql = kChangedPages, .values = {branch, known}});
  return statements;
}

// Removals first: a page that was stored again after its removal is in both results, and its row must win.
void take_pages(const std::string& branch, Snapshots& snapshots, const std::vector<Result>& results,
                std::size_t at, std::int64_t revision) {
  Snapshot& last = snapshots.pages[branch];
  const Result& removed = results.at(at);
  for (std::size_t row = 0; row < removed.rows(); ++row) last.entries.erase(removed.text(row, 0));
  const Result& changed = results.at(at + 1);
  for (std::size_t row = 0; row < changed.rows(); ++row)
    last.entries.set(changed.text(row, kFirstColumn), page_row(changed, row));
  last.revision = revision;
}

std::vector<Statement> reading_digests(const std::string& branch, const Snapshots& last) {
  std::vector<Statement> statements;
  statements.push_back({.sql = kChangedDigests, .values = {branch, known_revision(last.digests, branch)}});
  return statements;
}

void take_digests(const std::string& branch, Snapshots& snapshots, const std::vector<Result>& results,
                  std::size_t at, std::int64_t revision) {
  Snapshot& last = snapshots.digests[branch];
  const Result& changed = results.at(at);
  for (std::size_t row = 0; row < changed.rows(); ++row) {
    const std::string page_id = changed.text(row, 0);
    if (changed.is_null(row, 1)) {
      last.entries.erase(page_id);
    } else {
      last.entries.set(page_id, read_json(changed.text(row, 1), "the digest of " + page_id));
    }
  }
  last.revision = revision;
}

// Within a transaction nobody else writes, so a snapshot of its present revision needs no query.
StoredRows read_pages(Session& session, const std::string& branch) {
  Snapshot& last = session.last().pages[branch];
  if (!session.is_in_transaction() || last.revision != session.revision())
    read_news(session, branch, last, reading_pages, take_pages);
  return last.entries;
}

// Own changes of digests are in the snapshot already, so within a transaction one that knew all at its begin
// knows all now.
PageDigests read_digests(Session& session, const std::string& branch) {
  Snapshot& last = session.last().digests[branch];
  if (!session.is_in_transaction() || last.revision < session.begun())
    read_news(session, branch, last, reading_digests, take_digests);
  return last.entries;
}

// The texts are compared too: a digest that was made again is another object with the same text. `digests`
// itself becomes the snapshot, so that the next comparison skips what both share.
void write_digests(Session& session, const std::string& branch, const PageDigests& digests,
                   const std::map<std::string, std::string>& stale) {
  const PageDigests stored = read_digests(session, branch);
  std::vector<std::string> gone;
  std::vector<std::string> changed;
  std::vector<std::string> texts;
  for_each_difference(stored, digests, [&](const std::string& page_id, const Map* before, const Map* after) {
    if (after == nullptr) {
      gone.push_back(page_id);
    } else if (before == nullptr || *before != *after) {
      changed.push_back(page_id);
      texts.push_back(stored_json(*after, "the digest of " + page_id));
    }
  });
  std::vector<Statement> statements;
  if (!gone.empty() || !changed.empty()) {
    const std::int64_t revision = session.next_revision();
    statements.push_back({.sql = kPutDigests, .values = {branch, changed, texts, revision}});
    statements.push_back({.sql = kRemoveDigests, .values = {branch, gone, revision}});
  }
  if (!stale.empty()) statements.push_back(marking(branch, stale));
  session.send(std::move(statements));
  Snapshot& last = session.last().digests[branch];
  last.entries = digests;
  last.revision = session.revision();
}

std::optional<StoredPage> read_stored_page(Session& session, const std::string& branch,
                                           const std::string& page_id) {
  const Result row = session.run_one({.sql = kStoredPage, .values = {branch, page_id}});
  if (row.rows() == 0) return std::nullopt;
  std::vector<std::string> columns;
  columns.reserve(kStoredColumns);
  for (int column = 0; column < kStoredColumns; ++column) columns.push_back(row.text(0, column));
  return page_of_columns(columns);
}

}  // namespace ossilar::store::postgresql
