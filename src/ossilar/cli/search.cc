#include <fmt/format.h>

#include "ossilar/cli/commands.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/host/wiki_reader.h"

namespace ossilar::cli {
namespace {

using workers::wiki::Answer;
using workers::wiki::SearchHit;
using workers::wiki::SearchResult;

std::string shown_citation(const Map& citation) {
  const std::string first = utils::text_form(citation.at("first"));
  const std::string last = utils::text_form(citation.at("last"));
  return utils::text_form(citation.at("path")) + ":L" + first + (first == last ? "" : "-L" + last);
}

void print_hit(std::size_t rank, const SearchHit& hit, Output& output) {
  Shown place = output.styled(Style::bold, hit.page_id);
  if (!hit.section.empty()) place += " # " + hit.section;
  output.line(std::to_string(rank) + "  " + place + "  " +
              output.styled(Style::dim, fmt::format("{:.2f}", hit.score)));
  output.line("   " + hit.excerpt);
  for (const Map& citation : hit.citations)
    output.line("   " + output.styled(Style::dim, shown_citation(citation)));
}

}  // namespace

int run_search(const Place& place, const workers::wiki::SearchRequest& request, Output& output) {
  require_utf8_argument(request.query, "QUERY");
  require_utf8_argument(request.path, "--path");
  const auto wiki = open_at(place, "search");
  workers::wiki::adopt_arrivals(*wiki, workers::wiki::WhenBusy::skip);
  reembed_with_progress(*wiki);
  utils::Task task;
  const auto found = workers::wiki::WikiReader(*wiki).search(request, task);
  if (const auto* refusal = std::get_if<Answer>(&found)) return print_refusal(*refusal, output);
  const auto& result = std::get<SearchResult>(found);
  Map hits = Map::array();
  for (const SearchHit& hit : result.hits) hits.push_back(workers::wiki::hit_document(hit));
  output.document(Map{{"hits", hits}, {"warning", result.warning}});
  if (!result.warning.empty()) Output::diagnostic(result.warning);
  if (result.hits.empty()) {
    const std::string about = request.path.empty() ? "" : " about " + request.path;
    output.line("nothing found" + about + "; try other words, or see what there is with: ossilar plan");
  }
  for (std::size_t i = 0; i < result.hits.size(); ++i) print_hit(i + 1, result.hits[i], output);
  return kDone;
}

}  // namespace ossilar::cli
