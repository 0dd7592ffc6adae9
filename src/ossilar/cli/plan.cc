#include "ossilar/cli/commands.h"
#include "ossilar/workers/wiki/host/wiki_reader.h"

namespace ossilar::cli {
namespace {

using workers::wiki::PageCondition;
using workers::wiki::PageState;

Style style_of(PageCondition condition) {
  if (condition == PageCondition::ok) return Style::good;
  return condition == PageCondition::missing ? Style::dim : Style::warn;
}

Map document_of(const PageState& page) {
  return {{"page_id", page.page_id}, {"title", page.title},
          {"type", page.type},       {"level", page.level},
          {"parent", page.parent},   {"state", workers::wiki::condition_name(page.condition)},
          {"reason", page.reason},   {"citations", page.citations},
          {"words", page.words}};
}

std::string number(const PageState& page, std::int64_t value) {
  return page.condition == PageCondition::missing ? "" : std::to_string(value);
}

std::vector<Output::Cell> row_of(const PageState& page) {
  const std::string title = page.title == page.page_id ? "" : page.title;
  return {{workers::wiki::condition_name(page.condition), style_of(page.condition)},
          {page.page_id, Style::bold},
          {page.type},
          {number(page, page.citations)},
          {number(page, page.words)},
          {title},
          {page.reason, Style::warn}};
}

}  // namespace

int run_plan(const Place& place, Output& output) {
  const auto wiki = open_at(place, "plan");
  bring_up_to_date(*wiki);
  Map pages = Map::array();
  std::vector<std::vector<Output::Cell>> rows;
  for (const PageState& page : workers::wiki::WikiReader(*wiki).page_states(workers::wiki::Look::spared)) {
    pages.push_back(document_of(page));
    rows.push_back(row_of(page));
  }
  output.document(Map{{"pages", pages}});
  output.table({"STATE", "PAGE", "TYPE", "CITATIONS", "WORDS", "TITLE", "REASON"}, rows);
  return kDone;
}

}  // namespace ossilar::cli
