// All chunks of a page are one round trip, whatever their number: their values come as arrays.
//
// The order in replace_chunks() matters: passages first, as chunks refer to them; then their vectors, and the
// look whether all have one; then the chunks, in place; and last the chunks that are left over. Passages that
// nothing refers to any more go by triggers, after the statement that lets them go, so the statement that
// replaces chunks must be a single one: a passage may move from one chunk to another.
#include "ossilar/store/postgresql/passages.h"

#include <algorithm>
#include <utility>

#include "ossilar/store/stored_form.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/json.h"

namespace ossilar::store::postgresql {
namespace {

constexpr const char* kSharedPassages =
    "SELECT DISTINCT hash,"
    " EXISTS (SELECT FROM vectors WHERE vectors.passage_key = own.passage_key AND vectors.model = $3)"
    " FROM pages JOIN chunks AS own USING (page_key) JOIN passages USING (passage_key)"
    " WHERE branch = $1 AND page_id = $2 AND EXISTS (SELECT FROM chunks AS other"
    " WHERE other.passage_key = own.passage_key AND other.page_key <> own.page_key)";
constexpr const char* kVectors =
    "SELECT hash, vector FROM passages JOIN vectors USING (passage_key)"
    " WHERE model = $1 AND hash = ANY($2::text[])";
constexpr const char* kChunks =
    "SELECT position, section, text, hash, chunks.model, chunks.citations"
    " FROM pages JOIN chunks USING (page_key) JOIN passages USING (passage_key)"
    " WHERE branch = $1 AND page_id = $2 ORDER BY position";

// A stored text that differs although its hash is the same is damaged, and is replaced.
constexpr const char* kPutPassages =
    "INSERT INTO passages (hash, text)"
    " SELECT DISTINCT ON (hash) hash, text FROM unnest($1::text[], $2::text[]) AS new (hash, text)"
    " ON CONFLICT (hash) DO UPDATE SET text = excluded.text WHERE passages.text <> excluded.text";
constexpr const char* kPutVectors =
    "INSERT INTO vectors SELECT DISTINCT ON (passage_key, model) passage_key, model, vector"
    " FROM unnest($1::text[], $2::text[], $3::bytea[]) AS new (hash, model, vector)"
    " JOIN passages USING (hash) WHERE vector IS NOT NULL ON CONFLICT DO NOTHING";
constexpr const char* kWithoutVector =
    "SELECT hash, new.model FROM unnest($1::text[], $2::text[]) AS new (hash, model) JOIN passages USING "
    "(hash)"
    " WHERE NOT EXISTS (SELECT FROM vectors"
    " WHERE vectors.passage_key = passages.passage_key AND vectors.model = new.model) LIMIT 1";
// Weights of title, heading and text, see search.cc. LEFT JOIN: for a page without a row the foreign key
// speaks.
constexpr const char* kPutChunks =
    "INSERT INTO chunks (page_key, position, section, passage_key, model, citations, files, words, length)"
    " SELECT $1, position, section, passage_key, new.model, new.citations, new.files::text[],"
    " setweight(to_tsvector('words', coalesce(title_words, '')), 'A')"
    " || setweight(to_tsvector('words', section_words), 'B') || to_tsvector('words', text_words),"
    " new.length + coalesce(length(title_words) - length(replace(title_words, ' ', '')), 0)"
    " FROM unnest($2::bigint[], $3::text[], $4::text[], $5::text[], $6::text[], $7::text[], $8::text[],"
    " $9::text[], $10::bigint[])"
    " AS new (position, section, hash, model, citations, files, section_words, text_words, length)"
    " JOIN passages USING (hash)"
    " LEFT JOIN (SELECT title_words FROM pages WHERE page_key = $1) AS page ON true"
    " ON CONFLICT (page_key, position) DO UPDATE SET section = excluded.section,"
    " passage_key = excluded.passage_key, model = excluded.model, citations = excluded.citations,"
    " files = excluded.files, words = excluded.words, length = excluded.length"
    " WHERE (chunks.section, chunks.passage_key, chunks.model, chunks.citations, chunks.words)"
    " IS DISTINCT FROM (excluded.section, excluded.passage_key, excluded.model, excluded.citations,"
    " excluded.words)";
constexpr const char* kDropChunks =
    "DELETE FROM chunks WHERE page_key = $1 AND position <> ALL($2::bigint[])";

constexpr const char* kOtherModel = "SELECT min(model) FROM chunks WHERE model <> $1";
#define OSSILAR_LACKING                                  \
  " FROM passages WHERE NOT EXISTS (SELECT FROM vectors" \
  " WHERE vectors.passage_key = passages.passage_key AND model = $1)"
constexpr const char* kCountLacking = "SELECT count(*)" OSSILAR_LACKING;
constexpr const char* kLacking = "SELECT hash, text" OSSILAR_LACKING " AND hash > $2 ORDER BY hash LIMIT $3";
constexpr const char* kAddVectors =
    "INSERT INTO vectors SELECT passage_key, $1, vector"
    " FROM unnest($2::text[], $3::bytea[]) AS new (hash, vector) JOIN passages USING (hash)"
    " ON CONFLICT DO NOTHING";
constexpr const char* kRenameModel = "UPDATE chunks SET model = $1 WHERE model <> $1";
constexpr const char* kDropVectors = "DELETE FROM vectors WHERE model <> $1";

// The chunks of a page, one array for each column.
struct Columns {
  std::vector<std::int64_t> positions;
  std::vector<std::string> sections, hashes, texts, models, citations, files, section_words, text_words;
  std::vector<std::int64_t> lengths;
  std::vector<std::string> vectors;
  std::vector<std::optional<Bytes>> embeddings;  // into `vectors`
};

std::int64_t count_words(const std::string& spelled) {
  return static_cast<std::int64_t>(std::count(spelled.begin(), spelled.end(), ' '));
}

// The files that the chunk cites, as an array of PostgreSQL: a column of arrays of several lengths can only
// come as texts.
std::string cited_files(const Map& citations) {
  std::vector<std::string> files;
  for (const Map& citation : citations) files.push_back(utils::string_member(citation, "path"));
  return Value(files).c_str();
}

void append(Columns& columns, const Map& chunk) {
  const Map& embedding = utils::member(chunk, chunk_key::kEmbedding);
  const Map& citations = utils::member(chunk, chunk_key::kCitations);
  columns.positions.push_back(utils::member(chunk, chunk_key::kPosition).get<std::int64_t>());
  columns.sections.push_back(required_text(chunk, chunk_key::kSection));
  columns.hashes.push_back(required_text(chunk, chunk_key::kHash));
  columns.texts.push_back(required_text(chunk, chunk_key::kText));
  columns.models.push_back(required_text(chunk, chunk_key::kModel));
  columns.citations.push_back(stored_json(citations, chunk_key::kCitations));
  columns.files.push_back(cited_files(citations));
  columns.section_words.push_back(spelled_out(columns.sections.back()));
  columns.text_words.push_back(spelled_out(columns.texts.back()));
  columns.lengths.push_back(count_words(columns.section_words.back()) +
                            count_words(columns.text_words.back()));
  columns.vectors.push_back(embedding.is_null() ? "" : embedded_bytes(embedding));
}

// The views are taken last: a vector that grows moves its strings.
Columns columns_of(const std::vector<Map>& chunks) {
  Columns columns;
  for (const Map& chunk : chunks) append(columns, chunk);
  for (std::size_t at = 0; at < chunks.size(); ++at) {
    const bool is_given = !utils::member(chunks[at], chunk_key::kEmbedding).is_null();
    columns.embeddings.push_back(is_given ? std::optional(Bytes{columns.vectors[at]}) : std::nullopt);
  }
  return columns;
}

Vector stored_vector(const Result& rows, std::size_t at, int column) {
  return vector_of(rows.bytes(at, column));
}

}  // namespace

SharedPassages read_shared_passages(Session& session, const std::string& branch, const std::string& page_id,
                                    const std::string& model) {
  const Result rows = session.run_one({.sql = kSharedPassages, .values = {branch, page_id, model}});
  SharedPassages shared;
  for (std::size_t at = 0; at < rows.rows(); ++at) {
    shared.all.insert(rows.text(at, 0));
    if (rows.flag(at, 1)) shared.embedded.insert(rows.text(at, 0));
  }
  return shared;
}

std::map<std::string, Vector> read_vectors(Session& session, const std::string& model,
                                           const std::vector<std::string>& hashes) {
  std::map<std::string, Vector> vectors;
  if (hashes.empty()) return vectors;
  const Result rows = session.run_one({.sql = kVectors, .values = {model, hashes}});
  for (std::size_t at = 0; at < rows.rows(); ++at)
    vectors.emplace(rows.text(at, 0), stored_vector(rows, at, 1));
  return vectors;
}

std::vector<Map> read_chunks(Session& session, const std::string& branch, const std::string& page_id) {
  const Result rows = session.run_one({.sql = kChunks, .values = {branch, page_id}});
  std::vector<Map> chunks;
  chunks.reserve(rows.rows());
  for (std::size_t at = 0; at < rows.rows(); ++at) {
    chunks.push_back({{chunk_key::kPosition, rows.number(at, 0)},
                      {chunk_key::kSection, rows.text(at, 1)},
                      {chunk_key::kText, rows.text(at, 2)},
                      {chunk_key::kHash, rows.text(at, 3)},
                      {chunk_key::kModel, rows.text(at, 4)},
                      {chunk_key::kCitations, read_json(rows.text(at, 5), chunk_key::kCitations)}});
  }
  return chunks;
}

void replace_chunks(Session& session, std::int64_t page_key, const std::vector<Map>& chunks) {
  const Columns columns = columns_of(chunks);
  std::vector<Statement> statements;
  statements.reserve(5);
  statements.push_back({.sql = kPutPassages, .values = {columns.hashes, columns.texts}});
  statements.push_back({.sql = kPutVectors, .values = {columns.hashes, columns.models, columns.embeddings}});
  const std::size_t look = statements.size();
  statements.push_back({.sql = kWithoutVector, .values = {columns.hashes, columns.models}});
  statements.push_back({.sql = kPutChunks,
                        .values = {page_key, columns.positions, columns.sections, columns.hashes,
                                   columns.models, columns.citations, columns.files, columns.section_words,
                                   columns.text_words, columns.lengths}});
  statements.push_back({.sql = kDropChunks, .values = {page_key, columns.positions}});
  const std::vector<Result> results = session.run(std::move(statements));
  const Result& lacking = results.at(look);
  if (lacking.rows() > 0) {
    throw utils::Error("the passage " + lacking.text(0, 0) + " has no vector of the model " +
                       lacking.text(0, 1) + " any more; embed it and try again");
  }
}

std::optional<std::string> read_other_model(Session& session, const std::string& model) {
  const Result row = session.run_one({.sql = kOtherModel, .values = {model}});
  return row.is_null(0, 0) ? std::nullopt : std::optional(row.text(0, 0));
}

std::size_t count_lacking(Session& session, const std::string& model) {
  return static_cast<std::size_t>(session.run_one({.sql = kCountLacking, .values = {model}}).number(0, 0));
}

std::vector<PassageText> read_lacking(Session& session, const std::string& model, const std::string& after,
                                      std::size_t limit) {
  const Result rows =
      session.run_one({.sql = kLacking, .values = {model, after, static_cast<std::int64_t>(limit)}});
  std::vector<PassageText> passages;
  passages.reserve(rows.rows());
  for (std::size_t at = 0; at < rows.rows(); ++at) passages.push_back({rows.text(at, 0), rows.text(at, 1)});
  return passages;
}

void keep_vectors(Session& session, const std::string& model, const std::map<std::string, Vector>& vectors) {
  std::vector<std::string> hashes;
  std::vector<std::string> stored;
  for (const auto& [hash, vector] : vectors) {
    hashes.push_back(hash);
    stored.push_back(vector_bytes(vector));
  }
  std::vector<std::optional<Bytes>> bytes;
  bytes.reserve(stored.size());
  for (const std::string& each : stored) bytes.emplace_back(Bytes{each});
  session.run_one({.sql = kAddVectors, .values = {model, hashes, bytes}});
}

// Counts within the transaction that drops, so no passage can lose its only vector to a save in between.
bool drop_other_models(Session& session, const std::string& model) {
  if (count_lacking(session, model) > 0) return false;
  std::vector<Statement> statements;
  statements.push_back({.sql = kRenameModel, .values = {model}});
  statements.push_back({.sql = kDropVectors, .values = {model}});
  session.run(std::move(statements));
  return true;
}

}  // namespace ossilar::store::postgresql
