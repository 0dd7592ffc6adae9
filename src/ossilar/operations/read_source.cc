// Lines of an indexed file, for an author whose client cannot read files, with the numbers by which they are
// cited. Only a path that the index has is read: what is ignored, or lies outside, is not for a reader.
#include <algorithm>
#include <optional>
#include <variant>

#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/operations/tokens.h"
#include "ossilar/source/indexer.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/grounding/signature.h"
#include "ossilar/workers/wiki/grounding/symbol_lookup.h"
#include "ossilar/workers/wiki/near_paths.h"

namespace ossilar::operations {
namespace {

using source::SourceFile;
using source::SourceIndex;
using workers::wiki::Extent;
using workers::wiki::FoundSymbol;

// In tokens (tokens.h).
constexpr int kDefaultLinesBudget = 4000;
constexpr int kMostLinesBudget = 20000;  // clients cut a result at some 25,000
constexpr std::size_t kMostNearSymbols = 5;
constexpr std::size_t kMostPlaces = 20;

// What is to be read; or an answer that says why not.
struct Place {
  const SourceFile* file = nullptr;
  std::optional<Extent> lines;
  std::string symbol;  // the name, if one was asked for
};

Map no_such_source(const SourceIndex& index, const std::string& path) {
  Map similar = Map::array();
  for (const auto& file : index.files()) {
    if (similar.size() < kMostPlaces && file->path.starts_with(path + "/")) similar.push_back(file->path);
  }
  if (!similar.empty()) return {{"error", "'" + path + "' is a folder; name a file"}, {"similar", similar}};
  if (!workers::wiki::find_symbols({.name = path, .is_whole = true, .path = {}}, index).empty()) {
    return {
        {"error", "'" + path + "' is a symbol and no file; ask for it as symbol (in the shell: --symbol " +
                      path + ")"},
        {"similar", similar}};
  }
  const std::string nearest = workers::wiki::nearest_path(path, index);
  if (!nearest.empty()) similar.push_back(nearest);
  return {{"error", "there is no file '" + path + "' in the index" +
                        (nearest.empty() ? "" : "; did you mean '" + nearest + "'?")},
          {"similar", similar}};
}

std::string place_of(const FoundSymbol& found) {
  const std::string scope = found.symbol.scope.empty() ? "" : found.symbol.scope + "::";
  return found.file->path + ":L" + std::to_string(found.symbol.line) + " " + scope + found.symbol.name;
}

Map no_such_symbol(const SourceIndex& index, const std::string& name, const std::string& path) {
  const auto similar = workers::wiki::near_symbols(name, index, kMostNearSymbols);
  return {{"error", "there is no symbol '" + name + "'" + (path.empty() ? "" : " in " + path) +
                        (similar.empty() ? "" : "; did you mean '" + similar.front() + "'?")},
          {"similar", similar}};
}

// Lines of the file as it is now; the index may be a moment older.
std::optional<std::string> text_of(const Asked& asked, const SourceFile& file) {
  if (file.kind != source::FileKind::text) return std::nullopt;
  return source::read_source(asked.wiki.paths().root, file.path);
}

Extent extent_in(const Asked& asked, const FoundSymbol& found) {
  const std::string text = text_of(asked, *found.file).value_or("");
  const auto symbols = found.file->symbols.all();
  std::size_t number = 0;
  while (number + 1 < symbols.size() &&
         (symbols[number].name != found.symbol.name || symbols[number].line != found.symbol.line))
    ++number;
  return workers::wiki::extent_of(symbols, number, utils::split_lines(text));
}

// Where something else has the name: scripts bind what they import to a constant of its name.
void leave_out_values(std::vector<FoundSymbol>& found) {
  const auto is_value = [](const FoundSymbol& each) {
    const std::string& kind = each.symbol.kind;
    return kind == "constant" || kind == "variable" || kind == "const" || kind == "var";
  };
  if (!std::all_of(found.begin(), found.end(), is_value)) std::erase_if(found, is_value);
}

// `path` is a file, or lines of one as a citation names them; with `symbol` also a folder, or "".
std::variant<Place, Map> wanted(const Asked& asked, const SourceIndex& index) {
  std::string path = utils::string_member(asked.arguments, "path");
  if (path.starts_with("./")) path.erase(0, 2);
  const std::string symbol = utils::string_member(asked.arguments, "symbol");
  if (symbol.empty()) {
    std::optional<Extent> lines;
    if (const auto citation = workers::wiki::parse_citation(path)) {
      path = citation->path;
      lines = Extent{.first = citation->first, .last = citation->last};
    }
    const SourceFile* file = index.find(path);
    if (file == nullptr) return no_such_source(index, path);
    return Place{.file = file, .lines = lines, .symbol = {}};
  }
  auto found = workers::wiki::find_symbols({.name = symbol, .is_whole = true, .path = path}, index);
  leave_out_values(found);
  if (found.empty()) return no_such_symbol(index, symbol, path);
  if (found.size() > 1) {
    Map places = Map::array();
    for (std::size_t i = 0; i < std::min(found.size(), kMostPlaces); ++i)
      places.push_back(place_of(found[i]));
    // A declaration and its definition are two symbols, and the definition is not told by the index.
    return Map{{"error", "there are " + std::to_string(found.size()) + " symbols '" + symbol +
                             "'; name one by path or scope, or its lines"},
               {"places", places}};
  }
  return Place{.file = found.front().file, .lines = extent_in(asked, found.front()), .symbol = symbol};
}

Map shown(const Place& place, const std::string& text, std::size_t room) {
  const auto lines = utils::split_lines(text);
  const auto size = static_cast<std::int64_t>(lines.size());
  const Extent asked = place.lines.value_or(Extent{.first = 1, .last = size});
  if (asked.first > size) return {{"error", place.file->path + " has " + std::to_string(size) + " line(s)"}};
  std::string out;
  std::int64_t line = asked.first;
  for (; line <= std::min(asked.last, size); ++line) {
    const std::string_view all = lines[static_cast<std::size_t>(line - 1)];
    const std::string number = std::to_string(line) + "  ";
    const bool is_first = line == asked.first;
    if (!is_first && out.size() + number.size() + all.size() + 1 > room) break;
    out += number;  // the first line is cut rather than left out, so that a next call goes on
    out += utils::utf8_prefix(all, room);
    out += '\n';
  }
  Map value{{"path", place.file->path},         {"first", asked.first},  {"last", line - 1}, {"lines", size},
            {"language", place.file->language}, {"text", std::move(out)}};
  const std::int64_t last = std::min(asked.last, size);
  if (line <= last)
    value["next"] = place.file->path + ":L" + std::to_string(line) + "-L" + std::to_string(last);
  return value;
}

std::optional<Map> refuse_source(const Map& arguments) {
  if (arguments.contains("path") || arguments.contains("symbol")) return std::nullopt;
  return Map{{"error", "name a file as path, or a symbol"}};
}

Result call_read_source(const Asked& asked) {
  const auto planned = asked.caller == Caller::shell ? asked.wiki.planned() : asked.wiki.prepare();
  const auto found = wanted(asked, *planned->index);
  if (const auto* refusal = std::get_if<Map>(&found)) return {.value = *refusal};
  const auto& place = std::get<Place>(found);
  const auto text = text_of(asked, *place.file);
  if (!text) return {.value = Map{{"error", place.file->path + " is no text that can be read"}}};
  if (text->empty()) return {.value = Map{{"error", place.file->path + " is empty"}}};
  const auto budget = asked.arguments.value("budget", std::size_t{kDefaultLinesBudget});
  return {.value = shown(place, *text, budget * kBytesOfToken)};
}

}  // namespace

Operation read_source() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  return {
      .command = "source",
      .tool = "read_source",
      .title = "Read the source",
      .does = "Show lines of an indexed source file, or a symbol",
      .description =
          "Returns lines of an indexed source file with their numbers, as citations name them: of a path, of "
          "a path with lines (src/a.cc:L10-L60), or of a symbol by name, with the comment above it. What is "
          "beyond the budget is asked for by `next` as `path`. Use it if your client cannot read files.",
      .example =
          "ossilar source src/main.cc\nossilar source src/main.cc:L10-L60\nossilar source --symbol run",
      .arguments = {{.name = "path",
                     .option = "PATH",
                     .value = {},
                     .schema = needed_text("a file from the repository's root, or lines of it; with `symbol` "
                                           "the file or folder that it is in")},
                    {.name = "symbol",
                     .option = "--symbol",
                     .value = "NAME",
                     .schema = needed_text("the name of a symbol, or `Scope::name`")},
                    {.name = "budget",
                     .option = "--budget",
                     .value = "TOKENS",
                     .schema = number(100, kMostLinesBudget, kDefaultLinesBudget,
                                      "the most tokens to return, at four bytes each")}},
      .output_schema = object({{"path", text("the file")},
                               {"first", count("the first line shown")},
                               {"last", count("the last line shown")},
                               {"lines", count("number of lines of the file")},
                               {"language", text("its language, if known")},
                               {"text", text("the lines, each behind its number")},
                               {"next", text("there is more; pass this as `path`")},
                               {"error", text("why there is nothing to show")},
                               {"similar", strings("files or symbols that may be meant")},
                               {"places", strings("the symbols of that name")}}),
      .refuse = refuse_source,
      .call = call_read_source};
}

}  // namespace ossilar::operations
