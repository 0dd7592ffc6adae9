// A focus is looked up as a file, as a heading, and as a symbol, in this order: the first two are exact, and
// a symbol may have any name.
#include "ossilar/workers/wiki/asking/context_request.h"

#include <algorithm>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/citing/claims.h"
#include "ossilar/workers/wiki/grounding/context_text.h"
#include "ossilar/workers/wiki/grounding/symbol_lookup.h"
#include "ossilar/workers/wiki/near_paths.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceIndex;

constexpr std::size_t kMostPlaces = 12;  // of one focus: more would get a line or two each

bool is_text(const source::SourceFile* file) {
  return file != nullptr && file->kind == source::FileKind::text && file->lines > 0;
}

std::vector<FocusPlace> of_path(const std::string& focus, const SourceIndex& index) {
  if (const auto citation = parse_citation(focus)) {
    const source::SourceFile* file = index.find(citation->path);
    if (is_text(file)) return {{file, Extent{.first = citation->first, .last = citation->last}}};
  }
  const source::SourceFile* file = index.find(focus);
  if (is_text(file)) return {{.file = file, .lines = {}}};
  return {};
}

std::vector<FocusPlace> of_section(const std::string& focus, const Map* row, const SourceIndex& index) {
  std::vector<FocusPlace> places;
  if (row == nullptr) return places;
  for (const KnownClaim& claim : claims_of_row(*row)) {
    const source::SourceFile* file = index.find(claim.citation.path);
    if (places.size() == kMostPlaces || !is_text(file) || !same_heading(claim.heading, focus)) continue;
    places.push_back({file, Extent{.first = claim.citation.first, .last = claim.citation.last}});
  }
  return places;
}

// Those of the page's files first.
std::vector<FocusPlace> of_symbol(const Wiki& wiki, const std::string& focus,
                                  const std::vector<std::string>& files, const SourceIndex& index) {
  auto found = find_symbols({.name = focus, .is_whole = true}, index);
  std::stable_partition(found.begin(), found.end(), [&](const FoundSymbol& each) {
    return std::find(files.begin(), files.end(), each.file->path) != files.end();
  });
  std::vector<FocusPlace> places;
  for (const auto& [file, symbol] : found) {
    if (places.size() == kMostPlaces || !is_text(file)) break;
    const std::string text = source::read_source(wiki.paths().root, file->path).value_or("");
    const auto symbols = file->symbols.all();
    std::size_t number = 0;
    while (number + 1 < symbols.size() &&
           (symbols[number].name != symbol.name || symbols[number].line != symbol.line))
      ++number;
    places.push_back({file, extent_of(symbols, number, utils::split_lines(text))});
  }
  return places;
}

std::string unknown_focus(const std::string& focus, const SourceIndex& index) {
  std::string near = nearest_path(focus, index);
  if (near.empty()) {
    const auto names = near_symbols(focus, index, 1);
    if (!names.empty()) near = names.front();
  }
  return "focus '" + focus + "' is no indexed file, no symbol and no section of the page" +
         (near.empty() ? "" : "; did you mean '" + near + "'?");
}

// What the stored pages around the page say of themselves.
Abstracts abstracts_around(const PagePlan& plan, const store::StoredRows& rows) {
  std::vector<std::string> around = plan.related_pages;
  around.insert(around.end(), plan.children.begin(), plan.children.end());
  around.push_back(plan.parent);
  Abstracts abstracts;
  for (const std::string& id : around) {
    const Map* row = rows.find(id);
    if (row != nullptr) abstracts[id] = utils::string_member(*row, "summary");
  }
  return abstracts;
}

}  // namespace

ContextAnswer requested_context(Wiki& wiki, const PageContext& context, const ContextRequest& request) {
  const auto planned = wiki.planned();
  const SourceIndex& index = *planned->index;
  const store::StoredRows rows = wiki.stored_pages();
  const std::vector<std::string>& files = context.grounding.files;
  ContextWish wish{.room = request.room, .abstracts = abstracts_around(context.plan, rows)};
  ContextAnswer answer;
  for (const std::string& focus : request.focus) {
    auto places = of_path(focus, index);
    if (places.empty()) places = of_section(focus, rows.find(context.plan.page_id), index);
    if (places.empty()) places = of_symbol(wiki, focus, files, index);
    if (places.empty()) answer.unknown.push_back(unknown_focus(focus, index));
    wish.focus.insert(wish.focus.end(), places.begin(), places.end());
  }
  const auto read = [&](const std::string& path) { return source::read_source(wiki.paths().root, path); };
  answer.text = context_text(context.plan, planned->plans, index, context.steering, files, read, wish);
  return answer;
}

}  // namespace ossilar::workers::wiki
