// Identifiers are spelled out before FTS5 gets a text or a query. FTS5's tokenizers would take
// parseHTTPHeader for one word, which only the same spelling finds; one of our own inside FTS5 would leave
// the table unusable for other programs, such as the sqlite3 shell.
//
// The table keeps its own copy of the texts. With external content, FTS5 would need the former text of a row
// to remove it, and that is gone by the time the words are indexed.
#include "ossilar/store/sqlite/word_index.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "ossilar/store/stored_form.h"

namespace ossilar::store {

namespace {

constexpr const char* kDropWords = "DELETE FROM words WHERE rowid >= ?1 << " OSSILAR_POSITION_BITS
                                   " AND rowid < (?1 + 1) << " OSSILAR_POSITION_BITS;
constexpr const char* kChunksOfPage =
    "SELECT position, title, section, text FROM pages JOIN chunks USING (page_key)"
    " JOIN passages USING (passage_key) WHERE page_key = ?1";
constexpr const char* kAddWords =
    "INSERT INTO words (rowid, title, section, text) VALUES (?1 << " OSSILAR_POSITION_BITS
    " | ?2, ?3, ?4, ?5)";
constexpr const char* kMakeDue = "INSERT OR IGNORE INTO due_words VALUES (?1)";
constexpr const char* kCountDue = "SELECT count(*) FROM due_words";
constexpr const char* kDue = "SELECT page_key FROM due_words ORDER BY page_key LIMIT ?1";
constexpr const char* kDoneWith = "DELETE FROM due_words WHERE page_key = ?1";

// The pages of branch ?1, their chunks, and the filter: type ?2 and path ?3. substr() rather than LIKE, which
// ignores case and takes "_" and "%" in a path for wildcards.
#define OSSILAR_FILTERED                                                                            \
  " page.branch = ?1 AND (?2 = '' OR page.page_type = ?2)"                                          \
  " AND (?3 = '' OR EXISTS (SELECT 1 FROM json_each(page.source_files) AS file"                     \
  " WHERE file.value = ?3 OR substr(file.value, 1, length(?3) + 1) = ?3 || '/')"                    \
  " OR EXISTS (SELECT 1 FROM json_each(chunk.citations) AS cited WHERE cited.value ->> 'path' = ?3" \
  " OR substr(cited.value ->> 'path', 1, length(?3) + 1) = ?3 || '/'))"

// Weights of title, heading and text: a title says what the whole page is about, a heading what this section
// is about, so a word there counts more, and most in the heading, which is about less. bm25() gives smaller,
// negative numbers for better matches.
//
// Pages whose indexing is due are left out: their words are of former chunks, whose positions now name other
// texts.
constexpr const char* kMatches =
    "SELECT page.page_key, chunk.position, -bm25(words, 2.0, 3.0, 1.0) AS score, chunk.passage_key"
    " FROM words JOIN pages AS page ON page.page_key = words.rowid >> " OSSILAR_POSITION_BITS
    " JOIN chunks AS chunk ON chunk.page_key = page.page_key"
    " AND chunk.position = words.rowid & ((1 << " OSSILAR_POSITION_BITS
    ") - 1)"
    " WHERE words MATCH ?4 AND page.page_key NOT IN (SELECT page_key FROM due_words) AND" OSSILAR_FILTERED
    " ORDER BY score DESC, words.rowid";
// The best of all branches, so that FTS5 and a sort that keeps the first ?2 rows are all the work.
constexpr const char* kBestMatches =
    "SELECT rowid, -bm25(words, 2.0, 3.0, 1.0) AS score FROM words WHERE words MATCH ?1"
    " ORDER BY score DESC, rowid LIMIT ?2";
// The chunk of the row ?1 of words, none for a row that kMatches would leave out.
constexpr const char* kMatchedChunk =
    "SELECT page_key, position, passage_key FROM pages JOIN chunks USING (page_key)"
    " WHERE page_key = ?1 >> " OSSILAR_POSITION_BITS " AND position = ?1 & ((1 << " OSSILAR_POSITION_BITS
    ") - 1) AND branch = ?2 AND page_key NOT IN (SELECT page_key FROM due_words)";
constexpr const char* kAllVectors = "SELECT passage_key, vector FROM vectors WHERE model = ?1";
constexpr const char* kPlaceOfPassage =
    "SELECT page_key, position FROM chunks JOIN pages USING (page_key) WHERE passage_key = ?1 AND branch = ?2"
    " ORDER BY page_key, position LIMIT 1";
constexpr const char* kVectors =
    "SELECT page.page_key, chunk.position, vectors.vector, chunk.passage_key FROM pages AS page"
    " JOIN chunks AS chunk USING (page_key) JOIN vectors ON vectors.passage_key = chunk.passage_key"
    " AND vectors.model = ?4 WHERE" OSSILAR_FILTERED;
constexpr const char* kFound =
    "SELECT page_id, title, page_type, rel_path, section, text, hash, chunks.citations"
    " FROM pages JOIN chunks USING (page_key) JOIN passages USING (passage_key)"
    " WHERE page_key = ?1 AND position = ?2";

// The FTS5 expression for any of the words; "" for none. Each term is quoted, so that words such as "not" are
// no operators; terms hold letters and digits only, so no quote has to be escaped.
std::string match_expression(std::string_view words) {
  std::string expression;
  for (const std::string& term : question_terms(words))
    expression.append(expression.empty() ? "\"" : " OR \"").append(term).append("\"");
  return expression;
}

// Where a passage was found.
struct Place {
  double score;
  std::int64_t page_key;
  std::int64_t position;
  // The better one first; ties by page and position, so that a query gives the same order each time.
  bool operator<(const Place& other) const {
    return std::tie(other.score, page_key, position) < std::tie(score, other.page_key, other.position);
  }
};

// A query for each place, rather than these columns in the search itself: that would read the texts of all
// matches, of which few are wanted.
std::vector<FoundPassage> describe(Connection& connection, const std::vector<Place>& places) {
  std::vector<FoundPassage> found;
  for (const Place& place : places) {
    Query row(connection, kFound, place.page_key, place.position);
    if (!row.next()) continue;
    found.push_back({.page_id = row.text(0),
                     .title = row.text(1),
                     .page_type = row.text(2),
                     .rel_path = row.text(3),
                     .section = row.text(4),
                     .text = row.text(5),
                     .hash = row.text(6),
                     .citations = read_json(row.text(7), chunk_key::kCitations),
                     .score = place.score});
  }
  return found;
}

}  // namespace

void index_words(Connection& connection, std::int64_t page_key) {
  Query(connection, kDropWords, page_key).run();
  Query chunks(connection, kChunksOfPage, page_key);
  while (chunks.next()) {
    Query(connection, kAddWords, page_key, chunks.number(0), spelled_out(chunks.text(1)),
          spelled_out(chunks.text(2)), spelled_out(chunks.text(3)))
        .run();
  }
}

void make_words_due(Connection& connection, std::int64_t page_key) {
  Query(connection, kMakeDue, page_key).run();
}

std::size_t count_due_words(Connection& connection) {
  Query row(connection, kCountDue);
  row.next();
  return static_cast<std::size_t>(row.number(0));
}

// The keys are read first: the rows that the query walks over are deleted in the loop.
void index_due_words(Connection& connection, std::size_t most) {
  std::vector<std::int64_t> keys;
  {
    Query due(connection, kDue, static_cast<std::int64_t>(most));
    while (due.next()) keys.push_back(due.number(0));
  }
  for (const std::int64_t key : keys) {
    index_words(connection, key);
    Query(connection, kDoneWith, key).run();
  }
}

namespace {

// Places of different passages, the best first.
class BestPlaces {
 public:
  explicit BestPlaces(std::size_t limit) : limit_(limit) {}
  bool is_full() const { return places_.size() >= limit_; }
  // A passage that several pages hold matches several times, and counts once.
  void add(std::int64_t passage, Place place) {
    if (!is_full() && passages_.insert(passage).second) places_.push_back(place);
  }
  const std::vector<Place>& places() const { return places_; }

 private:
  const std::size_t limit_;
  std::vector<Place> places_;
  std::set<std::int64_t> passages_;
};

// Matches that are looked at before find_words() asks for all: enough where most of the database is this
// branch and most passages stand on one page.
constexpr std::size_t kOversampling = 8;

// The best places of the branch, if they are among the best matches of the whole database; else none. To join
// each match to its page costs more than the search itself, and a common word is in most passages.
std::optional<std::vector<Place>> quick_places(Connection& connection, const std::string& branch,
                                               const std::string& expression, std::size_t limit) {
  const std::size_t most = limit * kOversampling;
  BestPlaces best(limit);
  std::size_t count = 0;
  Query rows(connection, kBestMatches, expression, static_cast<std::int64_t>(most));
  for (; !best.is_full() && rows.next(); ++count) {
    Query chunk(connection, kMatchedChunk, rows.number(0), branch);
    if (chunk.next()) best.add(chunk.number(2), {rows.real(1), chunk.number(0), chunk.number(1)});
  }
  if (!best.is_full() && count == most) return std::nullopt;
  return best.places();
}

std::vector<Place> all_places(Connection& connection, const std::string& branch,
                              const std::string& expression, const PassageFilter& filter, std::size_t limit) {
  BestPlaces best(limit);
  Query rows(connection, kMatches, branch, filter.page_type, filter.path, expression);
  while (!best.is_full() && rows.next())
    best.add(rows.number(3), {rows.real(2), rows.number(0), rows.number(1)});
  return best.places();
}

}  // namespace

std::vector<FoundPassage> find_words(Connection& connection, const std::string& branch,
                                     const std::string& words, const PassageFilter& filter,
                                     std::size_t limit) {
  const std::string expression = match_expression(words);
  if (expression.empty()) return {};
  std::optional<std::vector<Place>> places;
  if (filter.page_type.empty() && filter.path.empty())
    places = quick_places(connection, branch, expression, limit);
  return describe(connection, places ? *places : all_places(connection, branch, expression, filter, limit));
}

namespace {

struct Scored {
  double score;
  std::int64_t passage;
};

bool is_better(const Scored& a, const Scored& b) {
  return std::tie(b.score, a.passage) < std::tie(a.score, b.passage);
}

// Every vector of the model with its score, in one pass through their table.
std::vector<Scored> scores_of(Connection& connection, const QueryVector& query) {
  std::vector<Scored> scores;
  Vector vector;
  Query rows(connection, kAllVectors, query.model);
  while (rows.next()) {
    read_vector(rows.bytes(1), vector);
    scores.push_back({dot(query.vector, vector), rows.number(0)});
  }
  return scores;
}

// As quick_places(), by vectors. Goes on to the end of the passages that score the same, so that the order
// of equal ones is that of their places.
std::optional<std::vector<Place>> quick_nearest(Connection& connection, const std::string& branch,
                                                const QueryVector& query, std::size_t limit) {
  std::vector<Scored> scores = scores_of(connection, query);
  const auto most = static_cast<std::ptrdiff_t>(std::min(scores.size(), limit * kOversampling));
  std::partial_sort(scores.begin(), scores.begin() + most, scores.end(), is_better);
  std::vector<Place> places;
  std::ptrdiff_t at = 0;
  for (; at < most; ++at) {
    const auto& [score, passage] = scores[static_cast<std::size_t>(at)];
    if (!places.empty() && places.size() >= limit && score < places.back().score) break;
    Query place(connection, kPlaceOfPassage, passage, branch);
    if (place.next()) places.push_back({score, place.number(0), place.number(1)});
  }
  if (at == most && most < std::ssize(scores)) return std::nullopt;
  std::sort(places.begin(), places.end());
  if (places.size() > limit) places.erase(places.begin() + static_cast<std::ptrdiff_t>(limit), places.end());
  return places;
}

// Keeps the best `limit` places so far, and drops the worst when a better one comes. A passage has one
// vector, and so the same score wherever it occurs: the first place that is found is as good as any. The key
// of a dropped passage is forgotten too, which bounds memory; if the passage occurs again, it is compared
// again, with the same score.
std::vector<Place> nearest_of_all(Connection& connection, const std::string& branch, const QueryVector& query,
                                  const PassageFilter& filter, std::size_t limit) {
  std::map<Place, std::int64_t> best;  // with the passages' keys
  std::set<std::int64_t> passages;
  Vector vector;
  Query rows(connection, kVectors, branch, filter.page_type, filter.path, query.model);
  while (rows.next()) {
    const std::int64_t passage = rows.number(3);
    if (!passages.insert(passage).second) continue;
    read_vector(rows.bytes(2), vector);
    best.emplace(Place{dot(query.vector, vector), rows.number(0), rows.number(1)}, passage);
    if (best.size() <= limit) continue;
    passages.erase(std::prev(best.end())->second);
    best.erase(std::prev(best.end()));
  }
  std::vector<Place> places;
  places.reserve(best.size());
  for (const auto& [place, passage] : best) places.push_back(place);
  return places;
}

}  // namespace

// Compares the query with every passage. An approximate index would answer faster in very large wikis, but
// each save would have to keep it up to date.
std::vector<FoundPassage> find_nearest(Connection& connection, const std::string& branch,
                                       const QueryVector& query, const PassageFilter& filter,
                                       std::size_t limit) {
  std::optional<std::vector<Place>> places;
  if (filter.page_type.empty() && filter.path.empty())
    places = quick_nearest(connection, branch, query, limit);
  return describe(connection, places ? *places : nearest_of_all(connection, branch, query, filter, limit));
}

}  // namespace ossilar::store
