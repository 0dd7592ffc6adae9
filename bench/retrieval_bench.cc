// How well search finds answers, on the collection in tests/data/retrieval: ossilar's search, beside its two
// halves and beside FTS5 as it comes, which is the figure to beat. Prints a table; with --misses also the
// questions whose answer is not among the first three.
#include <SQLiteCpp/SQLiteCpp.h>
#include <fmt/format.h>

#include <string_view>

#include "ossilar/search/embedder.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "support/retrieval.h"

namespace ossilar {
namespace {

using testing::Question;
using testing::Score;
using Found = std::vector<store::FoundPassage>;

constexpr std::size_t kDepth = 50;
const std::string kBranch = "default";

// FTS5 with its defaults over the passages' texts, asked for any of the query's words.
class PlainFts5 {
 public:
  explicit PlainFts5(store::WikiStore& store) {
    database_.exec("CREATE VIRTUAL TABLE passages USING fts5 (page_id UNINDEXED, section UNINDEXED, text)");
    store.get_wiki_pages(kBranch).for_each([&](const std::string& page_id, const Map&) {
      for (const Map& chunk : store.chunks(kBranch, page_id)) {
        SQLite::Statement add(database_, "INSERT INTO passages VALUES (?, ?, ?)");
        add.bind(1, page_id);
        add.bind(2, chunk.at("section").get<std::string>());
        add.bind(3, chunk.at("text").get<std::string>());
        add.exec();
      }
    });
  }
  Found search(const std::string& query) {
    std::string words;
    for (const std::string_view word : utils::split_words(query)) {
      std::string quoted(word);
      for (std::size_t at = 0; (at = quoted.find('"', at)) != quoted.npos; at += 2) quoted.insert(at, 1, '"');
      words += (words.empty() ? "\"" : " OR \"") + quoted + "\"";
    }
    SQLite::Statement rows(
        database_, "SELECT page_id, section FROM passages WHERE passages MATCH ? ORDER BY bm25(passages)");
    rows.bind(1, words);
    Found found;
    while (rows.executeStep()) {
      found.push_back({.page_id = rows.getColumn(0).getString(), .section = rows.getColumn(1).getString()});
    }
    return found;
  }

 private:
  SQLite::Database database_{":memory:", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE};
};

void print(std::string_view name, const Score& score) {
  fmt::print("{:<28} {:>7.1f} % {:>7.1f} % {:>8.3f}\n", name, 100 * score.hits_within(1),
             100 * score.hits_within(3), score.mean_reciprocal_rank());
}

void print_misses(const std::vector<Question>& questions, const Score& score) {
  for (std::size_t i = 0; i < questions.size(); ++i) {
    if (score.places[i] == 0 || score.places[i] > 3)
      fmt::print("  {:>2}  {}  ({} # {})\n", score.places[i], questions[i].query, questions[i].page_id,
                 questions[i].section);
  }
}

}  // namespace
}  // namespace ossilar

int main(int argc, char** argv) {
  using namespace ossilar;
  const testing::RetrievalWiki wiki;
  const auto questions = testing::retrieval_questions();
  const auto store = store::open_sqlite_store(wiki.database());
  const auto embedder = search::make_local_embedder();
  PlainFts5 plain(*store);
  const Score ours = testing::score_of(questions, [&](const std::string& query) {
    return std::get<workers::wiki::SearchResult>(
               workers::wiki::WikiReader(*wiki.wiki).search({.query = query, .limit = kDepth}, {}))
        .hits;
  });
  fmt::print("{} questions\n{:<28} {:>9} {:>9} {:>8}\n", questions.size(), "", "first", "in three", "MRR");
  print("FTS5 as it comes",
        testing::score_of(questions, [&](const std::string& query) { return plain.search(query); }));
  print("words alone", testing::score_of(questions, [&](const std::string& query) {
          return store->match_words(kBranch, query, {}, kDepth);
        }));
  print("vectors alone", testing::score_of(questions, [&](const std::string& query) {
          return store->nearest(kBranch, embedder->model(), embedder->embed({query}, {}).at(0), {}, kDepth);
        }));
  print("ossilar search", ours);
  if (argc > 1 && std::string_view(argv[1]) == "--misses") print_misses(questions, ours);
}
