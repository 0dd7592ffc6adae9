// The row that is stored has all fields; the row that is read back has fewer. Every process holds all rows of
// its branch, so what is large and rarely asked for is left out while reading: symbols, and the parts of the
// build cache that repeat the page's text. Lists stay JSON text, which takes a quarter of the memory of
// parsed values.
//
// SQL takes the parts out of the build cache. If it were parsed here, each read would build values only to
// drop them.
//
// kUpsertPage, kChangedPages and kColumns name the same columns; a new field goes into all three, into
// write_page() and into a step of the schema.
#include "ossilar/store/sqlite/rows.h"

#include <array>

#include "ossilar/store/stored_form.h"

namespace ossilar::store {
namespace {

enum class Kind { text, number, json };
struct Column {
  const char* name;
  Kind kind;
};

// The keys of a row in their order. They are the columns of kChangedPages from kFirstColumn on, after the
// revision. Symbols are left out: no reader of rows uses them, and they would be the largest part of what a
// process holds.
constexpr std::array kColumns{
    Column{"page_id", Kind::text},       Column{"title", Kind::text},
    Column{"description", Kind::text},   Column{"importance", Kind::text},
    Column{"level", Kind::number},       Column{"parent_section", Kind::text},
    Column{"rel_path", Kind::text},      Column{"source_files", Kind::json},
    Column{"source_hashes", Kind::json}, Column{"related_pages", Kind::json},
    Column{"citations", Kind::json},     Column{"content_hash", Kind::text},
    Column{"model", Kind::text},         Column{"status", Kind::text},
    Column{"summary", Kind::text},       Column{"build_cache", Kind::text},
    Column{"page_type", Kind::text},
};
constexpr int kFirstColumn = 1;

// An update in place rather than INSERT OR REPLACE: that would delete the row first, and with it chunks and
// marks, and give it another key.
constexpr const char* kUpsertPage =
    "INSERT INTO pages (branch, page_id, title, description, importance, level, parent_section, rel_path,"
    " source_files, source_hashes, symbols, related_pages, citations, content_hash, model, status, summary,"
    " build_cache, page_type, revision)"
    " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16, ?17, ?18, ?19, ?20)"
    " ON CONFLICT (branch, page_id) DO UPDATE SET title = excluded.title, description = excluded.description,"
    " importance = excluded.importance, level = excluded.level, parent_section = excluded.parent_section,"
    " rel_path = excluded.rel_path, source_files = excluded.source_files,"
    " source_hashes = excluded.source_hashes, symbols = excluded.symbols,"
    " related_pages = excluded.related_pages, citations = excluded.citations,"
    " content_hash = excluded.content_hash, model = excluded.model, status = excluded.status,"
    " summary = excluded.summary, build_cache = excluded.build_cache, page_type = excluded.page_type,"
    " revision = excluded.revision"
    " RETURNING page_key";

constexpr const char* kRestatePage =
    "UPDATE pages SET content_hash = ?3, citations = ?4, revision = ?5 WHERE branch = ?1 AND page_id = ?2";
constexpr const char* kRemovePage = "DELETE FROM pages WHERE branch = ?1 AND page_id = ?2";
// A page may be removed, stored and removed again; only its last removal counts.
constexpr const char* kNoteRemoval = "INSERT OR REPLACE INTO removed_pages VALUES (?1, ?2, ?3)";

// The text itself as a string value. It is checked to be JSON, so that damage is found here and not where the
// text is parsed.
Map json_column(std::string text, const char* name) {
  if (!Map::accept(text)) throw DamagedError(std::string(name) + ": the stored value is not JSON");
  return text;
}

Map column_value(const Query& rows, int at, const Column& column) {
  switch (column.kind) {
    case Kind::text:
      return rows.text(at);
    case Kind::number:
      return rows.number(at);
    case Kind::json:
      return json_column(rows.text(at), column.name);
  }
  return nullptr;
}

constexpr const char* kPageKey = "SELECT page_key FROM pages WHERE branch = ?1 AND page_id = ?2";
constexpr const char* kBuildCache = "SELECT build_cache FROM pages WHERE branch = ?1 AND page_id = ?2";

constexpr const char* kStoredPage =
    "SELECT title, description, importance, CAST(level AS TEXT), parent_section, rel_path, source_files,"
    " source_hashes, symbols, related_pages, citations, content_hash, model, status, summary, build_cache,"
    " page_type FROM pages WHERE branch = ?1 AND page_id = ?2";
constexpr int kStoredColumns = 17;

}  // namespace

// A build cache that is no JSON, as an empty one, is read as it is: json_remove() would fail and make all
// rows of the branch unreadable. The complete build cache is read by WikiStore::build_cache().
#define OSSILAR_ROW                                                                                          \
  "SELECT revision, page_id, title, description, importance, level, parent_section, rel_path, source_files," \
  " source_hashes, related_pages, citations, content_hash, model, status, summary,"                          \
  " CASE WHEN json_valid(build_cache)"                                                                       \
  " THEN json_remove(build_cache, '$.prose', '$.sections', '$.diagrams', '$.versions') ELSE build_cache"     \
  " END,"                                                                                                    \
  " page_type FROM pages"
const char* const kChangedPages = OSSILAR_ROW " WHERE branch = ?1 AND revision > ?2 ORDER BY revision";
const char* const kPagesRestingOn =
    OSSILAR_ROW " JOIN rests_on USING (page_key) WHERE branch = ?1 AND path = ?2";

const char* const kRemovedPages =
    "SELECT revision, page_id FROM removed_pages WHERE branch = ?1 AND revision > ?2 ORDER BY revision";

std::int64_t write_page(Connection& connection, const std::string& branch, const std::string& page_id,
                        const std::string& title, const PageFields& fields, std::int64_t revision) {
  Query query(connection, kUpsertPage, branch, page_id, title, fields.description, fields.importance,
              fields.level, fields.parent_section, fields.rel_path,
              stored_json(fields.source_files, "source_files"),
              stored_json(fields.source_hashes, "source_hashes"), stored_json(fields.symbols, "symbols"),
              stored_json(fields.related_pages, "related_pages"), stored_json(fields.citations, "citations"),
              fields.content_hash, fields.model, fields.status, fields.summary, fields.build_cache,
              fields.page_type, revision);
  query.next();
  return query.number(0);
}

void remove_row(Connection& connection, const std::string& branch, const std::string& page_id,
                std::int64_t revision) {
  Query(connection, kRemovePage, branch, page_id).run();
  Query(connection, kNoteRemoval, branch, page_id, revision).run();
}

void restate_row(Connection& connection, const std::string& branch, const std::string& page_id,
                 const std::string& content_hash, const std::vector<Map>& citations, std::int64_t revision) {
  Query(connection, kRestatePage, branch, page_id, content_hash, stored_json(citations, "citations"),
        revision)
      .run();
}

std::string page_id_of(const Query& rows) { return rows.text(kFirstColumn); }

// Appends to the object's vector: assigning by key would look through all keys before it each time.
Map page_row(const Query& rows) {
  Map row = Map::object();
  auto& members = row.get_ref<Map::object_t&>();
  members.reserve(kColumns.size());
  int at = kFirstColumn;
  for (const Column& column : kColumns) members.emplace_back(column.name, column_value(rows, at++, column));
  return row;
}

std::optional<std::int64_t> row_key(Connection& connection, const std::string& branch,
                                    const std::string& page_id) {
  Query query(connection, kPageKey, branch, page_id);
  if (!query.next()) return std::nullopt;
  return query.number(0);
}

std::optional<std::string> read_build_cache(Connection& connection, const std::string& branch,
                                            const std::string& page_id) {
  Query row(connection, kBuildCache, branch, page_id);
  return row.next() ? std::optional(row.text(0)) : std::nullopt;
}

std::optional<StoredPage> read_stored_page(Connection& connection, const std::string& branch,
                                           const std::string& page_id) {
  Query row(connection, kStoredPage, branch, page_id);
  if (!row.next()) return std::nullopt;
  std::vector<std::string> columns;
  columns.reserve(kStoredColumns);
  for (int column = 0; column < kStoredColumns; ++column) columns.push_back(row.text(column));
  return page_of_columns(columns);
}

}  // namespace ossilar::store
