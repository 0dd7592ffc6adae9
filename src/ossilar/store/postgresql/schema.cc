// The schema is the sum of these steps, and its version is their number. A step that was released must never
// change, as there are databases that have taken it; a change of the schema is a new step at the end.
//
// `counter.revision` is the write transaction that last changed rows or digests. Every writing transaction
// locks that row first, so writers come one after the other, on all machines, and revisions become visible in
// their order: a reader that has seen revision N has seen all up to N.
//
// Texts are JSON as text and not as jsonb: they must come back byte for byte.
//
// Passages and cited texts go with the last row that names them. Triggers see to it, whatever removed that
// row.
#include "ossilar/store/postgresql/schema.h"

#include <array>
#include <string>

namespace ossilar::store::postgresql {
namespace {

constexpr std::array kSteps{R"sql(
CREATE TABLE counter (revision bigint NOT NULL);
INSERT INTO counter VALUES (0);

CREATE TABLE pages (
  page_key bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  branch text NOT NULL,
  page_id text NOT NULL,
  title text NOT NULL,
  description text NOT NULL,
  importance text NOT NULL,
  level bigint NOT NULL,
  parent_section text NOT NULL,
  rel_path text NOT NULL,
  source_files text NOT NULL,
  source_hashes text NOT NULL,
  symbols text NOT NULL,
  related_pages text NOT NULL,
  citations text NOT NULL,
  content_hash text NOT NULL,
  model text NOT NULL,
  status text NOT NULL,
  summary text NOT NULL,
  build_cache text NOT NULL,
  short_cache text NOT NULL,
  title_words text NOT NULL,
  files text[] NOT NULL,
  page_type text NOT NULL,
  revision bigint NOT NULL,
  UNIQUE (branch, page_id)
);
CREATE INDEX pages_by_revision ON pages (branch, revision);

CREATE TABLE removed_pages (
  branch text NOT NULL,
  page_id text NOT NULL,
  revision bigint NOT NULL,
  PRIMARY KEY (branch, page_id)
);
CREATE INDEX removed_by_revision ON removed_pages (branch, revision);

CREATE TABLE stale_marks (
  page_key bigint PRIMARY KEY REFERENCES pages ON DELETE CASCADE,
  reason text NOT NULL
);

CREATE TABLE passages (
  passage_key bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  hash text COLLATE "C" NOT NULL UNIQUE,
  text text NOT NULL
);

CREATE TABLE vectors (
  passage_key bigint NOT NULL REFERENCES passages ON DELETE CASCADE,
  model text NOT NULL,
  vector bytea NOT NULL,
  PRIMARY KEY (passage_key, model)
);

CREATE TABLE chunks (
  page_key bigint NOT NULL REFERENCES pages ON DELETE CASCADE,
  position bigint NOT NULL,
  section text NOT NULL,
  passage_key bigint NOT NULL REFERENCES passages,
  model text NOT NULL,
  citations text NOT NULL,
  files text[] NOT NULL,
  words tsvector NOT NULL,
  length bigint NOT NULL,
  PRIMARY KEY (page_key, position)
);
CREATE INDEX chunks_by_passage ON chunks (passage_key);
CREATE INDEX chunks_by_model ON chunks (model);
CREATE INDEX chunks_by_words ON chunks USING gin (words);

CREATE FUNCTION drop_unheld_passages() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  DELETE FROM passages WHERE passage_key IN (SELECT passage_key FROM former)
    AND NOT EXISTS (SELECT FROM chunks WHERE chunks.passage_key = passages.passage_key);
  RETURN NULL;
END $$;
CREATE TRIGGER drop_unheld_after_delete AFTER DELETE ON chunks
  REFERENCING OLD TABLE AS former FOR EACH STATEMENT EXECUTE FUNCTION drop_unheld_passages();
CREATE TRIGGER drop_unheld_after_update AFTER UPDATE ON chunks
  REFERENCING OLD TABLE AS former FOR EACH STATEMENT EXECUTE FUNCTION drop_unheld_passages();

CREATE TABLE digests (
  branch text NOT NULL,
  page_id text NOT NULL,
  digest text,
  revision bigint NOT NULL,
  PRIMARY KEY (branch, page_id)
);
CREATE INDEX digests_by_revision ON digests (branch, revision);

CREATE TABLE wiki_state (
  branch text PRIMARY KEY,
  last_built_at text NOT NULL,
  last_commit text NOT NULL,
  changed_since_build bigint NOT NULL,
  model text NOT NULL,
  page_count bigint NOT NULL,
  manifest_hash text NOT NULL
);

CREATE TABLE cited_texts (hash text PRIMARY KEY, text bytea NOT NULL);
CREATE TABLE cited_by (
  page_key bigint NOT NULL REFERENCES pages ON DELETE CASCADE,
  hash text NOT NULL,
  PRIMARY KEY (page_key, hash)
);
CREATE INDEX cited_by_hash ON cited_by (hash);

CREATE FUNCTION drop_uncited_texts() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  DELETE FROM cited_texts WHERE hash IN (SELECT hash FROM former)
    AND NOT EXISTS (SELECT FROM cited_by WHERE cited_by.hash = cited_texts.hash);
  RETURN NULL;
END $$;
CREATE TRIGGER drop_uncited AFTER DELETE ON cited_by
  REFERENCING OLD TABLE AS former FOR EACH STATEMENT EXECUTE FUNCTION drop_uncited_texts();

CREATE TABLE page_versions (
  branch text NOT NULL,
  page_id text NOT NULL,
  number bigint NOT NULL,
  version text NOT NULL,
  at text NOT NULL,
  commit_id text NOT NULL,
  client text NOT NULL,
  action text NOT NULL,
  text text NOT NULL,
  PRIMARY KEY (branch, page_id, number)
);

-- Stems of English without a list of words to leave out, as in the index of SQLite.
CREATE TEXT SEARCH DICTIONARY stems (TEMPLATE = snowball, Language = english);
CREATE TEXT SEARCH CONFIGURATION words (PARSER = default);
ALTER TEXT SEARCH CONFIGURATION words ADD MAPPING FOR asciiword, word, numword WITH stems;
ALTER TEXT SEARCH CONFIGURATION words ADD MAPPING FOR int, uint, float, sfloat, version WITH simple;
)sql",
                            // Who is at work on which page.
                            R"sql(
CREATE TABLE page_claims (
  branch text NOT NULL,
  page_id text NOT NULL,
  holder text NOT NULL,
  client text NOT NULL,
  until bigint NOT NULL,
  PRIMARY KEY (branch, page_id)
);
)sql",
                            // The transactions of the last hour.
                            R"sql(
CREATE TABLE commits (mark uuid PRIMARY KEY, at timestamptz NOT NULL DEFAULT now());
CREATE INDEX commits_by_time ON commits (at);
)sql"};

constexpr auto kSchemaVersion = static_cast<std::int64_t>(kSteps.size());

// Any number that nobody else uses for an advisory lock in this database.
constexpr const char* kTakeTurn = "SELECT pg_advisory_xact_lock(7166372681034125)";
// The catalogue's tables and not to_regclass(), which would answer from a cache: within the transaction that
// has waited for its turn, that cache is from before the wait.
constexpr const char* kIsThere =
    "SELECT EXISTS (SELECT FROM pg_class JOIN pg_namespace ON pg_namespace.oid = relnamespace"
    " WHERE nspname = 'ossilar' AND relname = 'schema_version'),"
    " EXISTS (SELECT FROM pg_namespace WHERE nspname = 'ossilar'), current_setting('server_encoding')";
constexpr const char* kVersion = "SELECT version FROM ossilar.schema_version";

std::int64_t schema_version(Connection& connection) {
  const Result there = connection.run_one({.sql = kIsThere});
  if (there.text(0, 2) != "UTF8")
    throw utils::Error("its encoding is " + there.text(0, 2) + "; create it with: createdb --encoding=UTF8");
  if (there.flag(0, 0)) return connection.run_one({.sql = kVersion}).number(0, 0);
  if (there.flag(0, 1)) {
    throw utils::Error(
        "its schema \"ossilar\" was not made by this program; use another database, or rename that schema");
  }
  return 0;
}

void require_known(std::int64_t version) {
  if (version <= kSchemaVersion) return;
  throw utils::Error("a newer ossilar made it (its schema is version " + std::to_string(version) +
                     ", this program knows " + std::to_string(kSchemaVersion) + "); upgrade ossilar");
}

// In one transaction, which a failure or a kill takes back whole. The version is read again within it:
// another machine may have migrated while the turn was waited for.
void migrate(Connection& connection) {
  connection.execute("BEGIN");
  connection.run_one({.sql = kTakeTurn});
  const std::int64_t version = schema_version(connection);
  require_known(version);
  if (version == 0) {
    connection.execute(
        "CREATE SCHEMA ossilar; CREATE TABLE ossilar.schema_version (version bigint NOT NULL);"
        "INSERT INTO ossilar.schema_version VALUES (0)");
  }
  for (auto at = static_cast<std::size_t>(version); at < kSteps.size(); ++at)
    connection.execute(kSteps.at(at));
  connection.execute("UPDATE schema_version SET version = " + std::to_string(kSchemaVersion));
  connection.execute("COMMIT");
}

}  // namespace

void prepare_schema(Connection& connection) {
  const std::int64_t version = schema_version(connection);
  require_known(version);
  if (version < kSchemaVersion) migrate(connection);
}

}  // namespace ossilar::store::postgresql
