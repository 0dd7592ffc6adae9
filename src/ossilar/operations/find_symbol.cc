// Finds symbols by name. The rules are in workers/wiki/grounding/symbol_lookup.cc; this adds how each is
// declared, read from the files of those that are shown.
#include "ossilar/workers/wiki/grounding/symbol_lookup.h"

#include <map>

#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/source/indexer.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/grounding/signature.h"

namespace ossilar::operations {
namespace {

using workers::wiki::FoundSymbol;

constexpr int kDefaultSymbols = 20;
constexpr int kMostSymbols = 100;  // some 6,000 tokens
constexpr std::size_t kMostSimilar = 5;

// Declarations, each file read once.
class Signatures {
 public:
  explicit Signatures(const std::filesystem::path& root) : root_(root) {}

  std::string of(const FoundSymbol& found) {
    auto [text, is_new] = texts_.try_emplace(found.file->path);
    if (is_new) text->second = source::read_source(root_, found.file->path).value_or("");
    return workers::wiki::signature_of(utils::split_lines(text->second), found.symbol.line);
  }

 private:
  const std::filesystem::path& root_;
  std::map<std::string, std::string> texts_;
};

Map described(const FoundSymbol& found, Signatures& signatures) {
  Map shown{{"name", found.symbol.name}, {"kind", found.symbol.kind}};
  if (!found.symbol.scope.empty()) shown["scope"] = found.symbol.scope;
  shown["path"] = found.file->path;
  shown["line"] = found.symbol.line;
  if (std::string signature = signatures.of(found); !signature.empty())
    shown["signature"] = std::move(signature);
  return shown;
}

Result call_find_symbol(const Asked& asked) {
  const std::string name = utils::string_member(asked.arguments, "name");
  const auto planned = asked.caller == Caller::shell ? asked.wiki.planned() : asked.wiki.prepare();
  const auto found = workers::wiki::find_symbols({.name = name,
                                                  .path = utils::string_member(asked.arguments, "path"),
                                                  .kind = utils::string_member(asked.arguments, "kind")},
                                                 *planned->index);
  const auto limit = asked.arguments.value("limit", std::size_t{kDefaultSymbols});
  Signatures signatures(asked.wiki.paths().root);
  Map symbols = Map::array();
  for (std::size_t i = 0; i < std::min(found.size(), limit); ++i)
    symbols.push_back(described(found[i], signatures));
  Map value{{"symbols", std::move(symbols)}, {"total", found.size()}};
  if (found.empty()) value["similar"] = workers::wiki::near_symbols(name, *planned->index, kMostSimilar);
  return {.value = std::move(value)};
}

}  // namespace

Operation find_symbol() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  const Map symbol = object({{"name", text("its name")},
                             {"kind", text("function, class, macro, ...")},
                             {"scope", text("what it is declared in, if anything")},
                             {"path", text("the file")},
                             {"line", count("the line of its declaration")},
                             {"signature", text("how it is declared, on one line")}},
                            {"name", "kind", "path", "line"});
  return {.command = "symbol",
          .tool = "find_symbol",
          .title = "Find a symbol of the source",
          .does = "Find functions, types and other symbols of the source by name",
          .description =
              "Finds functions, types and other symbols of the indexed source by their name or a part of it, "
              "whatever its case: where each is and how it is declared. read_source shows its lines.",
          .example = "ossilar symbol parse\nossilar symbol Wiki::open --path src --kind function",
          .arguments = {{.name = "name",
                         .option = "NAME",
                         .value = {},
                         .schema =
                             needed_text("a name or a part of it; `Scope::name` or `Scope.name` in a scope"),
                         .required = true},
                        {.name = "path",
                         .option = "--path",
                         .value = "PATH",
                         .schema = needed_text("only in this file or folder")},
                        {.name = "kind",
                         .option = "--kind",
                         .value = "KIND",
                         .schema = needed_text("only of this kind: function, class, struct, macro, ...")},
                        {.name = "limit",
                         .option = "-n",
                         .value = "N",
                         .schema = number(1, kMostSymbols, kDefaultSymbols, "the most symbols to return")}},
          .output_schema = object({{"symbols", list(symbol, "the best first")},
                                   {"total", count("number of symbols that fit, also of those left out")},
                                   {"similar", strings("if there are none: names that may be meant")}},
                                  {"symbols", "total"}),
          .call = call_find_symbol};
}

}  // namespace ossilar::operations
