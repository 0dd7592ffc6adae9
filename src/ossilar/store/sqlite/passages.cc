// Replaces the chunks of a page by touching as little of the database as possible, as that decides for how
// long a save holds the lock. The plain way, to delete the page's chunks and insert the new ones, rewrites
// rows and index entries that end up as they were. Here chunks that stay are not written, and a passage whose
// text changed overwrites one that the page gives up, under the same number: then often not even its chunk
// changes.
//
// The order in replace_chunks() matters: passages first, as chunks refer to them; then the check that all
// have vectors; then the chunks; and last the passages that nothing refers to any more.
#include "ossilar/store/sqlite/passages.h"

#include <cstddef>
#include <deque>
#include <optional>
#include <set>
#include <tuple>

#include "ossilar/store/stored_form.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/json.h"

namespace ossilar::store {
namespace {

// A page may hold tens of thousands of passages, so each must cost the same as the first. Two kinds of
// statements do not: those that cascade, and those with RETURNING. SQLite may have to undo such a statement
// alone, and so ends it by truncating its statement journal, which is in memory, holds all changes since the
// savepoint, and is walked from its front. One of them for each passage takes time by the square of their
// number. So passages are deleted in a single statement, and the key of a new one is asked for after its
// INSERT.

// "<" or ">" are two seeks in the index for each chunk. "!=" would scan all places at which this page holds
// the passage.
constexpr const char* kSharedPassages =
    "SELECT DISTINCT hash, EXISTS (SELECT 1 FROM vectors WHERE passage_key = own.passage_key AND model = ?3)"
    " FROM pages JOIN chunks AS own USING (page_key) JOIN passages USING (passage_key)"
    " WHERE branch = ?1 AND page_id = ?2"
    " AND (EXISTS (SELECT 1 FROM chunks WHERE passage_key = own.passage_key AND page_key < own.page_key)"
    " OR EXISTS (SELECT 1 FROM chunks WHERE passage_key = own.passage_key AND page_key > own.page_key))";
constexpr const char* kVector =
    "SELECT vector FROM passages JOIN vectors USING (passage_key) WHERE hash = ?1 AND model = ?2";
constexpr const char* kChunks =
    "SELECT position, section, text, hash, chunks.model, chunks.citations"
    " FROM pages JOIN chunks USING (page_key) JOIN passages USING (passage_key)"
    " WHERE branch = ?1 AND page_id = ?2 ORDER BY position";
// Each passage once, in the order of the page.
constexpr const char* kHeldPassages =
    "SELECT hash, passage_key FROM chunks JOIN passages USING (passage_key) WHERE page_key = ?1"
    " GROUP BY passage_key ORDER BY min(position)";
// Two seeks, as in kSharedPassages.
constexpr const char* kHeldElsewhere =
    "SELECT EXISTS (SELECT 1 FROM chunks WHERE passage_key = ?1 AND page_key < ?2)"
    " OR EXISTS (SELECT 1 FROM chunks WHERE passage_key = ?1 AND page_key > ?2)";
constexpr const char* kRowsOfChunks =
    "SELECT position, section, passage_key, model, citations FROM chunks WHERE page_key = ?1";
constexpr const char* kDeleteChunk = "DELETE FROM chunks WHERE page_key = ?1 AND position = ?2";
constexpr const char* kInsertChunk = "INSERT INTO chunks VALUES (?1, ?2, ?3, ?4, ?5, ?6)";
constexpr const char* kPassage = "SELECT passage_key, text FROM passages WHERE hash = ?1";
constexpr const char* kHashOf = "SELECT hash FROM passages WHERE passage_key = ?1";
constexpr const char* kAddPassage = "INSERT INTO passages (hash, text) VALUES (?1, ?2)";
constexpr const char* kSetPassage = "UPDATE passages SET text = ?2 WHERE passage_key = ?1";
// Overwrites a passage with another one, which takes over its number.
constexpr const char* kBecomePassage = "UPDATE passages SET hash = ?2, text = ?3 WHERE passage_key = ?1";
constexpr const char* kDropVectorsBut = "DELETE FROM vectors WHERE passage_key = ?1 AND model != ?2";
constexpr const char* kHasVector = "SELECT 1 FROM vectors WHERE passage_key = ?1 AND model = ?2";
// A known passage has the same vector again, so the stored one stays; a new passage in the place of
// another must overwrite that one's vector.
constexpr const char* kKeepVector = "INSERT INTO vectors VALUES (?1, ?2, ?3) ON CONFLICT DO NOTHING";
constexpr const char* kSetVector =
    "INSERT INTO vectors VALUES (?1, ?2, ?3)"
    " ON CONFLICT (passage_key, model) DO UPDATE SET vector = excluded.vector";
// Two seeks in the index by model; "!=" would scan every chunk.
constexpr const char* kOtherModel =
    "SELECT min(model) FROM chunks WHERE model < ?1 UNION ALL SELECT min(model) FROM chunks WHERE model > ?1";
#define OSSILAR_LACKING                                    \
  " FROM passages WHERE NOT EXISTS (SELECT 1 FROM vectors" \
  " WHERE vectors.passage_key = passages.passage_key AND model = ?1)"
constexpr const char* kCountLacking = "SELECT count(*)" OSSILAR_LACKING;
constexpr const char* kLacking = "SELECT hash, text" OSSILAR_LACKING " AND hash > ?2 ORDER BY hash LIMIT ?3";
// By hash, so that a passage that is gone meanwhile selects nothing.
constexpr const char* kAddVector =
    "INSERT INTO vectors SELECT passage_key, ?2, ?3 FROM passages WHERE hash = ?1 ON CONFLICT DO NOTHING";
constexpr const char* kRenameModel = "UPDATE chunks SET model = ?1 WHERE model != ?1";
constexpr const char* kDropVectors = "DELETE FROM vectors WHERE model != ?1";
// The keys come as one JSON list: one statement for any number of them, see above. Vectors go along by
// cascade.
constexpr const char* kDropPassages =
    "DELETE FROM passages WHERE passage_key IN (SELECT value FROM json_each(?1))"
    " AND NOT EXISTS (SELECT 1 FROM chunks WHERE chunks.passage_key = passages.passage_key)";

// The passages that a page gives up. New passages take over the numbers of those that no other page holds.
// This writes a fraction of the database pages that deleting and inserting would, as the indexes by number
// and by model stay as they are.
class GoingPassages {
 public:
  // Passages in `shared_before` are taken to be held elsewhere without a look. Those that it lacks are looked
  // at, so it may name too few.
  GoingPassages(Connection& connection, std::int64_t page_key, const PassageHashes& wanted,
                const PassageHashes& shared_before)
      : connection_(connection), page_key_(page_key) {
    Query rows(connection, kHeldPassages, page_key);
    while (rows.next()) {
      const std::string hash = rows.text(0);
      if (!wanted.contains(hash) && !shared_before.contains(hash)) keys_.push_back(rows.number(1));
    }
  }

  // The number of a passage that no other page holds, for another passage; none when there is none left. This
  // page's own chunks may still refer to it: write_chunks() replaces those that change.
  std::optional<std::int64_t> take() {
    while (!keys_.empty()) {
      const std::int64_t key = keys_.front();
      keys_.pop_front();
      Query row(connection_, kHeldElsewhere, key, page_key_);
      row.next();
      if (row.number(0) == 0) return key;
    }
    return std::nullopt;
  }

  // Drops what was not taken. Call it after the page's chunks are written: until then they refer to these
  // passages.
  void drop_rest() {
    if (!keys_.empty()) Query(connection_, kDropPassages, utils::json_text(Map(keys_))).run();
  }

 private:
  Connection& connection_;
  std::int64_t page_key_;
  std::deque<std::int64_t> keys_;  // in the order of the page, which the file then roughly keeps
};

// The key of the passage if it is stored. A stored text that differs although its hash is the same is
// damaged, and is replaced. It is read as bytes, as text() would fail on damaged UTF-8.
std::optional<std::int64_t> known_passage(Connection& connection, const std::string& hash,
                                          const std::string& text) {
  Query known(connection, kPassage, hash);
  if (!known.next()) return std::nullopt;
  const std::int64_t key = known.number(0);
  if (known.blob(1) != text) Query(connection, kSetPassage, key, text).run();
  return key;
}

// Stores a new passage, under the number of one that goes if there is one, and gives its key. The vectors of
// the former passage are dropped but for that of `model`, which the caller overwrites: deleting and inserting
// it would cost more. With "" for `model` all are dropped.
std::int64_t add_passage(Connection& connection, const std::string& hash, const std::string& text,
                         const std::string& model, GoingPassages& going) {
  if (const auto key = going.take()) {
    Query(connection, kBecomePassage, *key, hash, text).run();
    Query(connection, kDropVectorsBut, *key, model).run();
    return *key;
  }
  Query(connection, kAddPassage, hash, text).run();
  return connection.database().getLastInsertRowid();
}

// Stores the passage of the chunk, and its vector if it comes with one; gives its key.
std::int64_t keep_passage(Connection& connection, const Map& chunk, GoingPassages& going) {
  const std::string hash = required_text(chunk, chunk_key::kHash);
  const std::string text = required_text(chunk, chunk_key::kText);
  const Map& embedding = utils::member(chunk, chunk_key::kEmbedding);
  const std::string model = embedding.is_null() ? "" : required_text(chunk, chunk_key::kModel);
  const auto known = known_passage(connection, hash, text);
  const std::int64_t key = known ? *known : add_passage(connection, hash, text, model, going);
  if (embedding.is_null()) return key;
  const std::string bytes = embedded_bytes(embedding);
  Query(connection, known ? kKeepVector : kSetVector, key, model, Blob{bytes}).run();
  return key;
}

// A row of `chunks`, without its page.
using ChunkRow = std::tuple<std::int64_t, std::string, std::int64_t, std::string, std::string>;

ChunkRow row_of(const Map& chunk, std::int64_t passage_key) {
  return {utils::member(chunk, chunk_key::kPosition).get<std::int64_t>(),
          required_text(chunk, chunk_key::kSection), passage_key, required_text(chunk, chunk_key::kModel),
          stored_json(utils::member(chunk, chunk_key::kCitations), chunk_key::kCitations)};
}

// Throws unless the passage has a vector of the chunk's model. A draft leaves out vectors that the store has;
// until the commit, another save may have dropped them.
void require_vector(Connection& connection, const ChunkRow& chunk) {
  const auto& [position, section, passage_key, model, citations] = chunk;
  if (Query(connection, kHasVector, passage_key, model).next()) return;
  Query passage(connection, kHashOf, passage_key);
  passage.next();
  throw utils::Error("the passage " + passage.text(0) + " has no vector of the model " + model +
                     " any more; embed it and try again");
}

// Writes only what differs, as most saves leave most chunks as they were. Deletes before it inserts: a
// changed chunk has the position, and so the primary key, of its former self.
void write_chunks(Connection& connection, std::int64_t page_key, const std::vector<ChunkRow>& chunks) {
  std::set<ChunkRow> gone;
  {
    Query rows(connection, kRowsOfChunks, page_key);
    while (rows.next())
      gone.emplace(rows.number(0), rows.text(1), rows.number(2), rows.text(3), rows.text(4));
  }
  std::vector<const ChunkRow*> added;
  for (const ChunkRow& chunk : chunks)
    if (gone.erase(chunk) == 0) added.push_back(&chunk);
  for (const ChunkRow& chunk : gone) Query(connection, kDeleteChunk, page_key, std::get<0>(chunk)).run();
  for (const ChunkRow* chunk : added) {
    const auto& [position, section, passage_key, model, citations] = *chunk;
    Query(connection, kInsertChunk, page_key, position, section, passage_key, model, citations).run();
  }
}

}  // namespace

SharedPassages read_shared_passages(Connection& connection, const std::string& branch,
                                    const std::string& page_id, const std::string& model) {
  SharedPassages shared;
  Query rows(connection, kSharedPassages, branch, page_id, model);
  while (rows.next()) {
    shared.all.insert(rows.text(0));
    if (rows.number(1) != 0) shared.embedded.insert(rows.text(0));
  }
  return shared;
}

std::map<std::string, Vector> read_vectors(Connection& connection, const std::string& model,
                                           const std::vector<std::string>& hashes) {
  std::map<std::string, Vector> vectors;
  for (const std::string& hash : hashes) {
    Query row(connection, kVector, hash, model);
    if (row.next()) vectors.emplace(hash, vector_of(row.blob(0)));
  }
  return vectors;
}

std::vector<Map> read_chunks(Connection& connection, const std::string& branch, const std::string& page_id) {
  std::vector<Map> chunks;
  Query rows(connection, kChunks, branch, page_id);
  while (rows.next()) {
    chunks.push_back({{chunk_key::kPosition, rows.number(0)},
                      {chunk_key::kSection, rows.text(1)},
                      {chunk_key::kText, rows.text(2)},
                      {chunk_key::kHash, rows.text(3)},
                      {chunk_key::kModel, rows.text(4)},
                      {chunk_key::kCitations, read_json(rows.text(5), chunk_key::kCitations)}});
  }
  return chunks;
}

// `wanted` has all hashes from the start: a passage that a later chunk needs must not give its number to an
// earlier one.
void replace_chunks(Connection& connection, std::int64_t page_key, const std::vector<Map>& chunks,
                    const PassageHashes& shared_before) {
  PassageHashes wanted;
  for (const Map& chunk : chunks) wanted.insert(required_text(chunk, chunk_key::kHash));
  GoingPassages going(connection, page_key, wanted, shared_before);
  std::vector<ChunkRow> rows;
  rows.reserve(chunks.size());
  for (const Map& chunk : chunks) rows.push_back(row_of(chunk, keep_passage(connection, chunk, going)));
  for (const ChunkRow& row : rows) require_vector(connection, row);
  write_chunks(connection, page_key, rows);
  going.drop_rest();
}

std::optional<std::string> read_other_model(Connection& connection, const std::string& model) {
  Query rows(connection, kOtherModel, model);
  while (rows.next()) {
    if (!rows.is_null(0)) return rows.text(0);
  }
  return std::nullopt;
}

std::size_t count_lacking(Connection& connection, const std::string& model) {
  Query row(connection, kCountLacking, model);
  row.next();
  return static_cast<std::size_t>(row.number(0));
}

std::vector<PassageText> read_lacking(Connection& connection, const std::string& model,
                                      const std::string& after, std::size_t limit) {
  std::vector<PassageText> passages;
  Query rows(connection, kLacking, model, after, static_cast<std::int64_t>(limit));
  while (rows.next()) passages.push_back({rows.text(0), rows.text(1)});
  return passages;
}

void keep_vectors(Connection& connection, const std::string& model,
                  const std::map<std::string, Vector>& vectors) {
  for (const auto& [hash, vector] : vectors) {
    const std::string bytes = vector_bytes(vector);
    Query(connection, kAddVector, hash, model, Blob{bytes}).run();
  }
}

// Counts within the transaction that drops, so no passage can lose its only vector to a save in between.
bool drop_other_models(Connection& connection, const std::string& model) {
  if (count_lacking(connection, model) > 0) return false;
  Query(connection, kRenameModel, model).run();
  Query(connection, kDropVectors, model).run();
  return true;
}

}  // namespace ossilar::store
