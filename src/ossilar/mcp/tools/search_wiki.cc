#include "ossilar/mcp/tools/schemas.h"
#include "ossilar/mcp/tools/tools.h"
#include "ossilar/workers/wiki/host/wiki_reader.h"
#include "ossilar/workers/wiki/passages/reembedding.h"

namespace ossilar::mcp {
namespace {

using workers::wiki::Answer;
using workers::wiki::SearchHit;
using workers::wiki::SearchRequest;
using workers::wiki::SearchResult;
using workers::wiki::Wiki;

// Embeds the wiki again when its model changed. Gives why that failed; the search then goes without what it
// has not embedded.
std::string embed_again(Wiki& wiki, utils::Task& task) {
  if (!workers::wiki::embedding_change(wiki.store(), wiki.embedder())) return "";
  try {
    workers::wiki::reembed(wiki.store(), wiki.embedder(), {}, task);
    return "";
  } catch (const utils::Error& error) {
    return std::string("the embedding model changed, and not all is embedded again: ") + error.what();
  }
}

ToolResult call(Wiki& wiki, const Map& arguments, utils::Task& task) {
  const SearchRequest request{.query = utils::string_member(arguments, "query"),
                              .limit = arguments.value("limit", workers::wiki::kDefaultHits),
                              .page_type = utils::string_member(arguments, "type"),
                              .path = utils::string_member(arguments, "path")};
  std::string not_embedded = embed_again(wiki, task);
  const auto found = workers::wiki::WikiReader(wiki).search(request, task);
  if (const auto* refusal = std::get_if<Answer>(&found)) return {*refusal, {}};
  const auto& result = std::get<SearchResult>(found);
  Map hits = Map::array();
  for (const SearchHit& hit : result.hits) hits.push_back(workers::wiki::hit_document(hit));
  Map value{{"hits", hits}};
  const std::string& warning = result.warning.empty() ? not_embedded : result.warning;
  if (!warning.empty()) value["warning"] = warning;
  return {std::move(value), {}};
}

}  // namespace

Tool search_wiki_tool() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  const Map citation =
      object({{"path", text("source file")}, {"first", count("line")}, {"last", count("line")}},
             {"path", "first", "last"});
  const Map hit =
      object({{"page_id", text("for read_page")},
              {"title", text("of the page")},
              {"type", text("of the page")},
              {"rel_path", text("the page's file")},
              {"section", text("the `##` heading it stands under, for read_page; \"\" above the first")},
              {"excerpt", text("of the passage")},
              {"score", Map{{"type", "number"}, {"description", "1 is the most there can be"}}},
              {"citations", list(citation, "the source lines that the passage cites")}},
             {"page_id", "title", "section", "excerpt", "score", "citations"});
  return {.name = "search_wiki",
          .title = "Search the wiki",
          .description =
              "Finds the passages of the wiki that answer a question about the code: by words, by names of "
              "the code in "
              "any spelling (parseHTTPHeader, parse_http_header), and by similarity. Ask with the words that "
              "the answer "
              "would use. Each hit names page and section for read_page and the source lines it cites.",
          .reads_only = true,
          .input_schema = arguments(
              {{"query", text("a question, words, or names of the code")},
               {"limit", number(1, static_cast<int>(workers::wiki::kMostHits),
                                static_cast<int>(workers::wiki::kDefaultHits), "how many hits")},
               {"type", choice({"overview", "architecture", "module", "topic"}, "only pages of this type")},
               {"path", text("only passages about this source file or folder")}},
              {"query"}),
          .output_schema = object({{"hits", list(hit, "the best first")},
                                   {"warning", text("what the search had to leave out, and why")}},
                                  {"hits"}),
          .call = call};
}

}  // namespace ossilar::mcp
