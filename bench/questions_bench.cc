// How well search answers questions that use other words than the answer, on the five wikis in
// tests/data/questions: ossilar's search beside its two halves. Prints a table, for questions with and
// without a word in common with their answer apart. Every third question is set aside, and asked only with
// --aside; with --misses also the questions whose answer is not among the first three.
#include <SQLiteCpp/SQLiteCpp.h>
#include <fmt/format.h>

#include <array>
#include <functional>
#include <set>
#include <string_view>

#include "ossilar/search/embedder.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/utils/identifiers.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "support/retrieval.h"

namespace ossilar {
namespace {

using testing::Question;
using testing::Score;

constexpr std::size_t kDepth = 50;
const std::string kBranch = "default";
constexpr std::array<std::string_view, 5> kWikis{"ossilar", "leveldb", "sqlite", "puma", "fastify"};

// Words that a question may share with any text. Generous, so that a question counts as one without a word in
// common only if its subject is named otherwise.
const std::set<std::string_view> kFunctionWords{
    "a",     "about", "after", "again", "all",    "also",    "an",    "and",     "another", "any",
    "are",   "as",    "at",    "be",    "been",   "before",  "being", "but",     "by",      "can",
    "could", "did",   "do",    "does",  "down",   "during",  "each",  "else",    "for",     "from",
    "get",   "gets",  "had",   "has",   "have",   "how",     "i",     "if",      "in",      "instead",
    "into",  "is",    "it",    "its",   "itself", "just",    "me",    "more",    "most",    "much",
    "must",  "my",    "no",    "nor",   "not",    "now",     "of",    "off",     "on",      "once",
    "one",   "only",  "or",    "other", "our",    "out",     "over",  "own",     "same",    "should",
    "so",    "some",  "such",  "than",  "that",   "the",     "their", "them",    "then",    "there",
    "they",  "this",  "those", "to",    "too",    "under",   "until", "up",      "upon",    "us",
    "use",   "was",   "we",    "were",  "what",   "when",    "where", "whether", "which",   "while",
    "who",   "whose", "why",   "will",  "with",   "without", "would", "you",     "your"};

// Whether texts have a word in common, by stems and the parts of identifiers.
class SharedWords {
 public:
  SharedWords() {
    database_.exec("CREATE VIRTUAL TABLE answer USING fts5 (text, tokenize = 'porter unicode61')");
  }
  bool any(const std::string& question, const std::string& answer) {
    database_.exec("DELETE FROM answer");
    SQLite::Statement add(database_, "INSERT INTO answer VALUES (?)");
    add.bind(1, spelled(answer));
    add.exec();
    for (const utils::Token& token : utils::tokens_of(question)) {
      for (const std::string& part : token.parts) {
        if (!kFunctionWords.contains(part) && is_in_answer(part)) return true;
      }
    }
    return false;
  }

 private:
  static std::string spelled(const std::string& text) {
    std::string words;
    for (const utils::Token& token : utils::tokens_of(text)) {
      for (const std::string& part : token.parts) words += part + " ";
    }
    return words;
  }
  bool is_in_answer(const std::string& word) {
    SQLite::Statement match(database_, "SELECT count(*) FROM answer WHERE answer MATCH ?");
    match.bind(1, "\"" + word + "\"");
    match.executeStep();
    return match.getColumn(0).getInt() > 0;
  }
  SQLite::Database database_{":memory:", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE};
};

std::string answer_text(store::WikiStore& store, const Question& question) {
  std::string text;
  for (const Map& chunk : store.chunks(kBranch, question.page_id)) {
    if (chunk.at("section").get<std::string>() == question.section)
      text += chunk.at("section").get<std::string>() + "\n" + chunk.at("text").get<std::string>() + "\n";
  }
  if (text.empty()) throw std::runtime_error("no answer to: " + question.query);
  return text;
}

constexpr std::array<std::string_view, 3> kWays{"words alone", "vectors alone", "ossilar search"};

// The scores of all wikis together: one for each way of searching.
using Scores = std::array<Score, kWays.size()>;

struct Group {
  Scores scores = {};
  std::size_t unsure = 0;  // questions for which the search says that there may be no answer
};

struct Groups {
  Group with = {};     // a word in common with the answer
  Group without = {};  // none
  std::size_t unanswered = 0;
  std::size_t unanswered_unsure = 0;
  std::vector<std::string> misses = {};
};

workers::wiki::SearchResult search_of(workers::wiki::Wiki& wiki, const std::string& query) {
  return std::get<workers::wiki::SearchResult>(
      workers::wiki::WikiReader(wiki).search({.query = query, .limit = kDepth}, {}));
}

void ask(std::string_view wiki_name, bool aside, Groups& groups) {
  const std::string folder = "questions/" + std::string(wiki_name);
  const testing::RetrievalWiki wiki(wiki_name == "ossilar" ? "retrieval/pages" : folder + "/pages");
  const auto store = store::open_sqlite_store(wiki.database());
  search::Embedder& embedder = wiki.wiki->embedder();
  SharedWords shared;
  std::size_t number = 0;
  for (const Question& question : testing::retrieval_questions(folder + "/questions.txt")) {
    if ((number++ % 3 == 2) != aside) continue;
    const bool is_with = shared.any(question.query, answer_text(*store, question));
    const auto place_of = [&](const auto& found) {
      return testing::score_of({question}, [&](const std::string&) { return found; }).places[0];
    };
    const auto found = search_of(*wiki.wiki, question.query);
    const std::array<std::size_t, kWays.size()> places{
        place_of(store->match_words(kBranch, question.query, {}, kDepth)),
        place_of(store->nearest(kBranch, embedder.model(), embedder.embed({question.query}, {}).at(0), {},
                                kDepth)),
        place_of(found.hits)};
    Group& group = is_with ? groups.with : groups.without;
    for (std::size_t way = 0; way < kWays.size(); ++way) group.scores[way].places.push_back(places[way]);
    if (!found.warning.empty()) ++group.unsure;
    if (places.back() == 0 || places.back() > 3) {
      groups.misses.push_back(fmt::format("  {:>2}  {}  {}: {} ({} # {})", places.back(),
                                          is_with ? "with   " : "without", wiki_name, question.query,
                                          question.page_id, question.section));
    }
  }
  for (const Map& row : testing::rows_of(folder + "/unanswered.txt")) {
    ++groups.unanswered;
    const auto found = search_of(*wiki.wiki, row.at(0));
    if (found.hits.empty() || !found.warning.empty()) ++groups.unanswered_unsure;
  }
}

void print(std::string_view name, const Group& group) {
  const std::size_t asked = group.scores[0].places.size();
  fmt::print("{} ({} questions, {} told that there may be no answer)\n", name, asked, group.unsure);
  for (std::size_t way = 0; way < kWays.size(); ++way) {
    const Score& score = group.scores[way];
    fmt::print("  {:<26} {:>7.1f} % {:>7.1f} % {:>8.3f}\n", kWays[way], 100 * score.hits_within(1),
               100 * score.hits_within(3), score.mean_reciprocal_rank());
  }
}

Group joined(Group first, const Group& second) {
  for (std::size_t way = 0; way < kWays.size(); ++way) {
    auto& places = first.scores[way].places;
    places.insert(places.end(), second.scores[way].places.begin(), second.scores[way].places.end());
  }
  first.unsure += second.unsure;
  return first;
}

}  // namespace
}  // namespace ossilar

int main(int argc, char** argv) {
  using namespace ossilar;
  const std::set<std::string_view> options(argv + 1, argv + argc);
  Groups groups;
  for (const std::string_view wiki : kWikis) ask(wiki, options.contains("--aside"), groups);
  fmt::print("{:<28} {:>9} {:>9} {:>8}\n", "", "first", "in three", "MRR");
  print("with a word in common", groups.with);
  print("without", groups.without);
  print("all", joined(groups.with, groups.without));
  fmt::print("{} questions without an answer: {} are told so\n", groups.unanswered, groups.unanswered_unsure);
  if (options.contains("--misses")) {
    for (const std::string& miss : groups.misses) fmt::print("{}\n", miss);
  }
}
