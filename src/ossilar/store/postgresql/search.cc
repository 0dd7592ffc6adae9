// PostgreSQL's own ranks know nothing of how rare a word is, so the score is computed here, in SQL, as
// SQLite's index computes it: BM25 over weighted counts of a word in title (2), heading (3) and text (1),
// with the usual constants.
#include "ossilar/store/postgresql/search.h"

#include <algorithm>
#include <optional>
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
constexpr const char* kPlaces =
    "SELECT passage_key, page_key, position FROM pages AS page JOIN chunks AS chunk USING (page_key)"
    " WHERE" OSSILAR_FILTERED;
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

// The best `limit` places, the best first, each passage once. `rows` are those of kPlaces. Few of many are
// wanted, so they are taken off a heap and not sorted.
std::vector<Place> nearest_places(const Result& rows, const std::vector<std::int64_t>& passages,
                                  const std::vector<std::optional<double>>& cosines, std::size_t limit) {
  using Candidate = std::pair<Place, std::int64_t>;  // with its passage
  const auto is_later = [](const Candidate& one, const Candidate& other) { return other.first < one.first; };
  std::vector<Candidate> heap;
  heap.reserve(passages.size());
  for (std::size_t at = 0; at < passages.size(); ++at)
    if (cosines[at]) heap.push_back({{*cosines[at], rows.number(at, 1), rows.number(at, 2)}, passages[at]});
  std::make_heap(heap.begin(), heap.end(), is_later);
  std::vector<Place> places;
  std::set<std::int64_t> found;
  while (!heap.empty() && places.size() < limit) {
    std::pop_heap(heap.begin(), heap.end(), is_later);
    if (found.insert(heap.back().second).second) places.push_back(heap.back().first);
    heap.pop_back();
  }
  return places;
}

std::vector<std::int64_t> passages_of(const Result& rows) {
  std::vector<std::int64_t> passages;
  passages.reserve(rows.rows());
  for (std::size_t at = 0; at < rows.rows(); ++at) passages.push_back(rows.number(at, 0));
  return passages;
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

// Compares the query with every passage of the branch, here: see vector_cache.h.
std::vector<FoundPassage> find_nearest(Session& session, VectorCache& vectors, const std::string& branch,
                                       const std::string& model, const Vector& query,
                                       const PassageFilter& filter, std::size_t limit) {
  const Result rows = session.run_one({.sql = kPlaces, .values = {branch, filter.page_type, filter.path}});
  const std::vector<std::int64_t> passages = passages_of(rows);
  const auto cosines = vectors.cosines(session, model, passages, query);
  if (filter.page_type.empty() && filter.path.empty()) vectors.settle(passages);
  const std::vector<Place> places = nearest_places(rows, passages, cosines, limit);
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
