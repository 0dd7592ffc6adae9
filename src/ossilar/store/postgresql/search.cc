// PostgreSQL's own ranks know nothing of how rare a word is, so the score is computed here, in SQL, as
// SQLite's index computes it: BM25 over weighted counts of a word in title (2), heading (3) and text (1),
// with the usual constants.
#include "ossilar/store/postgresql/search.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "ossilar/store/stored_form.h"
#include "ossilar/utils/text.h"

namespace ossilar::store::postgresql {
namespace {

// The chunks of branch $1, and the filter: type $2 and path $3. starts_with() rather than LIKE, which takes
// "_" and "%" in a path for wildcards.
#define OSSILAR_FILTERED                                                           \
  " page.branch = $1 AND ($2 = '' OR page.page_type = $2)"                         \
  " AND ($3 = '' OR EXISTS (SELECT FROM unnest(page.files || chunk.files) AS file" \
  " WHERE file = $3 OR starts_with(file, $3 || '/')))"

// A word in more than half of a thousand chunks says nothing (its share of a score is 0), and would make
// every chunk a match: those words are left out where there are others.
constexpr const char* kMatches =
    "WITH sizes AS (SELECT count(*)::float8 AS chunks, avg(length)::float8 AS length FROM pages"
    " JOIN chunks USING (page_key) WHERE branch = $1),"
    " asked AS (SELECT lexeme, (SELECT count(*) FROM pages JOIN chunks USING (page_key)"
    " WHERE branch = $1 AND words @@ quote_literal(lexeme)::tsquery)::float8 AS found"
    " FROM unnest(to_tsvector('words', $4))),"
    " telling AS (SELECT lexeme, greatest(ln((chunks - found + 0.5) / (found + 0.5)), 1e-6) AS weight"
    " FROM asked, sizes WHERE found > 0 AND (chunks < 1000 OR found <= chunks / 2"
    " OR NOT EXISTS (SELECT FROM asked AS other WHERE other.found BETWEEN 1 AND chunks / 2))),"
    " wanted AS (SELECT string_agg(quote_literal(lexeme), ' | ')::tsquery AS query FROM telling),"
    " matches AS (SELECT chunk.page_key, chunk.position, chunk.passage_key, chunk.words, chunk.length"
    " FROM pages AS page JOIN chunks AS chunk USING (page_key)"
    " WHERE chunk.words @@ (SELECT query FROM wanted) AND" OSSILAR_FILTERED
    "),"
    " counts AS (SELECT page_key, position, passage_key, matches.length, telling.weight,"
    " (SELECT sum(CASE letter WHEN 'A' THEN 2 WHEN 'B' THEN 3 ELSE 1 END) FROM unnest(word.weights) AS "
    "letter)"
    "::float8 AS times FROM matches, unnest(matches.words) AS word JOIN telling USING (lexeme)),"
    " scores AS (SELECT page_key, position, passage_key, sum(weight * times * 2.2"
    " / (times + 1.2 * (0.25 + 0.75 * counts.length / sizes.length))) AS score FROM counts, sizes"
    " GROUP BY page_key, position, passage_key),"
    " best AS (SELECT DISTINCT ON (passage_key) * FROM scores"
    " ORDER BY passage_key, score DESC, page_key, position)"
    " SELECT page_id, title, page_type, rel_path, section, text, hash, chunks.citations, score"
    " FROM (SELECT * FROM best ORDER BY score DESC, page_key, position LIMIT $5) AS best"
    " JOIN pages USING (page_key) JOIN chunks USING (page_key, position)"
    " JOIN passages ON passages.passage_key = best.passage_key ORDER BY score DESC, page_key, position";
constexpr const char* kVectorsOfBranch =
    "SELECT page_key, position, vectors.vector, passage_key FROM pages AS page"
    " JOIN chunks AS chunk USING (page_key) JOIN vectors USING (passage_key)"
    " WHERE vectors.model = $4 AND" OSSILAR_FILTERED;
constexpr const char* kFound =
    "SELECT page_id, title, page_type, rel_path, section, text, hash, chunks.citations, place"
    " FROM unnest($1::bigint[], $2::bigint[]) WITH ORDINALITY AS found (page_key, position, place)"
    " JOIN pages USING (page_key) JOIN chunks USING (page_key, position) JOIN passages USING (passage_key)"
    " ORDER BY place";

// Where a passage was found. The better one first; ties by page and position, so that a query gives the same
// order each time.
struct Place {
  double score;
  std::int64_t page_key;
  std::int64_t position;
  bool operator<(const Place& other) const {
    return std::tie(other.score, page_key, position) < std::tie(score, other.page_key, other.position);
  }
};

FoundPassage found_passage(const Result& rows, std::size_t at, double score) {
  return {.page_id = rows.text(at, 0),
          .title = rows.text(at, 1),
          .page_type = rows.text(at, 2),
          .rel_path = rows.text(at, 3),
          .section = rows.text(at, 4),
          .text = rows.text(at, 5),
          .hash = rows.text(at, 6),
          .citations = read_json(rows.text(at, 7), chunk_key::kCitations),
          .score = score};
}

// Each passage of the rows once, the best `limit` of them.
std::vector<Place> nearest_places(const Result& rows, const Vector& query, std::size_t limit) {
  std::map<Place, std::int64_t> best;  // with the passages' keys
  std::set<std::int64_t> passages;
  for (std::size_t at = 0; at < rows.rows(); ++at) {
    const std::int64_t passage = rows.number(at, 3);
    if (!passages.insert(passage).second) continue;
    best.emplace(Place{dot(query, vector_of(rows.bytes(at, 2))), rows.number(at, 0), rows.number(at, 1)},
                 passage);
    if (best.size() <= limit) continue;
    best.erase(std::prev(best.end()));
  }
  std::vector<Place> places;
  places.reserve(best.size());
  for (const auto& [place, passage] : best) places.push_back(place);
  return places;
}

}  // namespace

std::vector<FoundPassage> find_words(Session& session, const std::string& branch, const std::string& words,
                                     const PassageFilter& filter, std::size_t limit) {
  const std::string terms = utils::join(question_terms(words), " ");
  if (terms.empty()) return {};
  const Result rows = session.run_one(
      {.sql = kMatches,
       .values = {branch, filter.page_type, filter.path, terms, static_cast<std::int64_t>(limit)}});
  std::vector<FoundPassage> found;
  found.reserve(rows.rows());
  for (std::size_t at = 0; at < rows.rows(); ++at) found.push_back(found_passage(rows, at, rows.real(at, 8)));
  return found;
}

// Compares the query with every passage of the branch, here: the server has no function for it without an
// extension, which many a hosted one lacks.
std::vector<FoundPassage> find_nearest(Session& session, const std::string& branch, const std::string& model,
                                       const Vector& query, const PassageFilter& filter, std::size_t limit) {
  const Result rows =
      session.run_one({.sql = kVectorsOfBranch, .values = {branch, filter.page_type, filter.path, model}});
  const std::vector<Place> places = nearest_places(rows, query, limit);
  std::vector<FoundPassage> found;
  if (places.empty()) return found;
  std::vector<std::int64_t> pages;
  std::vector<std::int64_t> positions;
  for (const Place& place : places) {
    pages.push_back(place.page_key);
    positions.push_back(place.position);
  }
  const Result described = session.run_one({.sql = kFound, .values = {pages, positions}});
  found.reserve(described.rows());  // fewer where a save came in between
  for (std::size_t at = 0; at < described.rows(); ++at) {
    const auto place = static_cast<std::size_t>(described.number(at, 8) - 1);
    found.push_back(found_passage(described, at, places.at(place).score));
  }
  return found;
}

}  // namespace ossilar::store::postgresql
