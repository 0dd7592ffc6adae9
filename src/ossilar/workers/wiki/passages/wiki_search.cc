// Where the embedder's cosines have a known scale, passages are scored (relevance.h). Other cosines and BM25
// have no common scale, and adding them up would need a factor for each wiki and model; then places in a
// ranking are joined by reciprocal rank fusion (search/ranking.h), in which each embedder sets its weight.
//
// Vectors are the optional half: words are searched without any service. So an embedder that fails costs a
// warning, while a store that fails ends the search, as it holds the words too.
#include "ossilar/workers/wiki/passages/wiki_search.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <numeric>
#include <optional>
#include <set>

#include "ossilar/search/ranking.h"
#include "ossilar/utils/identifiers.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/passages/relevance.h"

namespace ossilar::workers::wiki {
namespace {

using store::FoundPassage;

// Bytes. Far more than a question has; it bounds what an embedding service is sent.
constexpr std::size_t kLongestQuery = 2000;
// Bytes. Two or three sentences: enough to judge a hit by, and a page of hits stays readable.
constexpr std::size_t kLongestExcerpt = 300;
// Bytes shown before the first match, some ten words, so that it does not start in the middle of a thought.
constexpr std::size_t kBeforeMatch = 60;

// Passages that each ranking contributes. It must be more than the usual number of hits, since a passage in
// the middle of both rankings can beat one at the top of a single one; and as many as kMostHits, so that one
// ranking alone can fill the longest answer.
constexpr std::size_t kCandidates = 50;

// Every query has a nearest passage, so without a limit nonsense would find something. The local embedder
// gives unrelated texts cosines around zero. Another model may put all texts above it; then nothing is cut
// off.
constexpr double kNoise = 0.15;

std::optional<Answer> refuse(const SearchRequest& request) {
  if (utils::strip(request.query).empty())
    return Answer{{"error", "the query is empty; use words, or names from the code"}};
  if (request.query.size() > kLongestQuery) {
    return Answer{{"error", "the query has " + std::to_string(request.query.size()) + " bytes; at most " +
                                std::to_string(kLongestQuery) + " are allowed"}};
  }
  if (request.limit < 1 || request.limit > kMostHits)
    return Answer{{"error", "the limit must be from 1 to " + std::to_string(kMostHits)}};
  if (!request.page_type.empty() && find_page_type(request.page_type) == nullptr) {
    return Answer{{"error", "unknown page type '" + utils::printable(request.page_type) +
                                "'; use overview, architecture, module or topic"}};
  }
  return std::nullopt;
}

// `path` as the index spells it: without "." and empty parts, and without a slash at the end. "" for the
// root.
std::string index_path(const std::string& path) {
  std::string normal = std::filesystem::path(path).lexically_normal().generic_string();
  while (normal.ends_with("/")) normal.pop_back();
  return normal == "." ? "" : normal;
}

std::vector<std::string> keys_of(const std::vector<FoundPassage>& found) {
  std::vector<std::string> keys;
  keys.reserve(found.size());
  for (const FoundPassage& passage : found) keys.push_back(passage.hash);
  return keys;
}

struct Match {
  std::size_t at;    // where the word that holds it begins
  std::string part;  // the part of it that was asked for
};

// Where parts of the query's identifiers stand in the text, in order. Words are compared by their parts as in
// the index, but without its stems: a hit that was found by a stem or by its vector may have no match.
std::vector<Match> matches_in(std::string_view text, const std::string& query) {
  std::set<std::string> wanted;
  for (const utils::Token& token : utils::tokens_of(query))
    wanted.insert(token.parts.begin(), token.parts.end());
  std::vector<Match> matches;
  for (const std::string_view word : utils::split_words(text)) {
    for (const utils::Token& token : utils::tokens_of(word)) {
      for (const std::string& part : token.parts) {
        if (wanted.count(part) > 0)
          matches.push_back({static_cast<std::size_t>(word.data() - text.data()), part});
      }
    }
  }
  return matches;
}

// Where the stretch with the most different parts of the query begins, the first of equals; 0 without a
// match. Different ones, as one common word often repeated says less than two words of the question side by
// side.
std::size_t densest(const std::vector<Match>& matches) {
  // An excerpt must hold the stretch, kBeforeMatch bytes before it, and the rest of its last word.
  constexpr std::size_t kTogether = kLongestExcerpt - 2 * kBeforeMatch;
  // A window that moves over the matches: each enters and leaves it once, however many stand in one word.
  std::map<std::string_view, int> held;
  std::size_t best = 0;
  std::size_t most = 0;
  std::size_t end = 0;
  for (std::size_t first = 0; first < matches.size(); ++first) {
    for (; end < matches.size() && matches[end].at < matches[first].at + kTogether; ++end)
      ++held[matches[end].part];
    if (held.size() > most) {
      most = held.size();
      best = matches[first].at;
    }
    const auto leaving = held.find(matches[first].part);
    if (--leaving->second == 0) held.erase(leaving);
  }
  return best;
}

std::string on_one_line(std::string_view text) {
  std::vector<std::string> words;
  for (const std::string_view word : utils::split_words(text)) words.emplace_back(word);
  return utils::join(words, " ");
}

// The passage without its heading, which a hit names anyway; the whole if there is nothing below the heading.
std::string_view below_heading(std::string_view text) {
  if (!text.starts_with('#')) return text;
  const std::string_view below = text.substr(std::min(text.find('\n'), text.size()));
  return utils::strip(below).empty() ? text : utils::strip(below);
}

// A short passage is shown whole. A longer one begins at a blank some way before the match, or at the match
// where there is none, and ends at a blank; "..." stands for what is left out.
std::string excerpt_of(std::string_view passage, const std::string& query) {
  constexpr std::string_view kBlanks = " \t\n";
  const std::string_view text = below_heading(passage);
  const std::size_t match = text.size() > kLongestExcerpt ? densest(matches_in(text, query)) : 0;
  std::size_t begin = 0;
  if (match > kBeforeMatch) begin = std::min(match, text.find_first_of(kBlanks, match - kBeforeMatch));
  std::string_view cut = utils::utf8_prefix(text.substr(begin), kLongestExcerpt);
  const bool is_cut = begin + cut.size() < text.size();
  if (is_cut) cut = cut.substr(0, std::min(cut.find_last_of(kBlanks), cut.size()));
  return (begin > 0 ? "... " : "") + on_one_line(cut) + (is_cut ? " ..." : "");
}

SearchHit hit_of(const FoundPassage& passage, double score, const std::string& query) {
  return {.page_id = passage.page_id,
          .title = passage.title,
          .page_type = passage.page_type,
          .rel_path = passage.rel_path,
          .section = passage.section,
          .excerpt = excerpt_of(passage.text, query),
          .score = score,
          .citations = passage.citations};
}

struct Nearest {
  store::Vector query;
  std::vector<FoundPassage> passages;
};

// The store gives the best first, so all from the first one below kNoise on goes. None when the embedder
// fails, with a warning; utils::Cancelled is no std::exception and passes.
std::optional<Nearest> nearest_passages(const SearchRequest& request, const store::PassageFilter& filter,
                                        const std::string& branch, store::WikiStore& store,
                                        search::Embedder& embedder, const utils::Task& task,
                                        std::string& warning) {
  try {
    Nearest nearest{.query = embedder.embed({request.query}, task).at(0), .passages = {}};
    auto& found = nearest.passages;
    found = store.nearest(branch, embedder.model(), nearest.query, filter, kCandidates);
    found.erase(std::find_if(found.begin(), found.end(),
                             [](const FoundPassage& passage) { return passage.score < kNoise; }),
                found.end());
    return nearest;
  } catch (const store::StorageError&) {
    throw;
  } catch (const std::exception& error) {
    warning = std::string("searched by words only: ") + error.what();
    return std::nullopt;
  }
}

// The cosines with the query of what was found by words, as far as it has vectors.
std::map<std::string, double> cosines_of(const std::vector<FoundPassage>& found, const store::Vector& query,
                                         store::WikiStore& store, const search::Embedder& embedder) {
  std::map<std::string, double> cosines;
  for (const auto& [hash, vector] : store.vectors(embedder.model(), keys_of(found))) {
    if (vector.size() == query.size())
      cosines[hash] = std::inner_product(query.begin(), query.end(), vector.begin(), 0.0);
  }
  return cosines;
}

// Both rankings joined by ranks, for cosines whose scale is unknown. Scores are shares of the best there can
// be, first place in both rankings, so 1 is the most with any embedder.
std::vector<search::Ranked> by_ranks(const std::vector<FoundPassage>& by_words,
                                     const std::vector<FoundPassage>& by_vectors, double weight) {
  auto ranked = search::fuse(
      {{.keys = keys_of(by_words), .weight = 1}, {.keys = keys_of(by_vectors), .weight = weight}});
  const double first_everywhere = search::fuse({{.keys = {""}, .weight = 1 + weight}})[0].score;
  for (search::Ranked& each : ranked) each.score /= first_everywhere;
  return ranked;
}

}  // namespace

Map hit_document(const SearchHit& hit) {
  return {{"page_id", hit.page_id},
          {"title", hit.title},
          {"type", hit.page_type},
          {"rel_path", hit.rel_path},
          {"section", hit.section},
          {"excerpt", hit.excerpt},
          {"score", std::round(hit.score * 1000) / 1000},  // more decimals would look like precision
          {"citations", hit.citations}};
}

std::variant<SearchResult, Answer> search_wiki(const SearchRequest& request, const std::string& branch,
                                               store::WikiStore& store, search::Embedder& embedder,
                                               const utils::Task& task) {
  if (auto refusal = refuse(request)) return *std::move(refusal);
  const store::PassageFilter filter{.page_type = request.page_type, .path = index_path(request.path)};
  SearchResult result;
  const auto by_words = store.match_words(branch, request.query, filter, kCandidates);
  const auto nearest = nearest_passages(request, filter, branch, store, embedder, task, result.warning);
  const auto by_vectors = nearest ? nearest->passages : std::vector<FoundPassage>();
  // By hash. A passage that several pages hold may come with another page from each ranking; that of the
  // words counts, as it was found with its page's title.
  std::map<std::string, const FoundPassage*> passages;
  for (const auto* found : {&by_words, &by_vectors}) {
    for (const FoundPassage& passage : *found) passages.emplace(passage.hash, &passage);
  }
  const bool is_scaled = nearest && embedder.has_known_scale();
  const auto ranked =
      is_scaled ? by_relevance({.question = request.query,
                                .by_words = by_words,
                                .by_vectors = by_vectors,
                                .other_cosines = cosines_of(by_words, nearest->query, store, embedder)})
                : by_ranks(by_words, by_vectors, embedder.ranking_weight());
  const std::size_t shown = std::min(ranked.size(), static_cast<std::size_t>(request.limit));
  for (std::size_t i = 0; i < shown; ++i)
    result.hits.push_back(hit_of(*passages.at(ranked[i].key), ranked[i].score, request.query));
  if (is_scaled && shown > 0 && ranked[0].score < kUnsure)
    result.warning = "the wiki may have no answer to this; these are the nearest passages";
  return result;
}

}  // namespace ossilar::workers::wiki
