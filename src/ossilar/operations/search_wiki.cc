// Finds the passages that answer a question. When the embedding model was changed, passages without a vector
// of the new model are embedded first: vectors of two models cannot be compared, so the ranking by similarity
// would miss these passages. A save does not do this, as it must not take as long as embedding the whole
// wiki.
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/passages/reembedding.h"

namespace ossilar::operations {
namespace {

using workers::wiki::Answer;
using workers::wiki::SearchHit;
using workers::wiki::SearchRequest;
using workers::wiki::SearchResult;

// Returns why not all passages could be embedded, or "". Not a failure: words and the vectors that there are
// can still be searched. For the shell, cli/run_operation.cc has done this with a progress bar, and only what
// failed is left.
std::string embed_again(const Asked& asked) {
  workers::wiki::Wiki& wiki = asked.wiki;
  if (!workers::wiki::embedding_change(wiki.store(), wiki.embedder())) return "";
  try {
    workers::wiki::reembed(wiki.store(), wiki.embedder(), {}, asked.task);
    return "";
  } catch (const utils::Error& error) {
    return std::string("the embedding model changed, and embedding all passages again failed: ") +
           error.what();
  }
}

Result call_search_wiki(const Asked& asked) {
  const SearchRequest request{.query = utils::string_member(asked.arguments, "query"),
                              .limit = asked.arguments.value("limit", workers::wiki::kDefaultHits),
                              .page_type = utils::string_member(asked.arguments, "type"),
                              .path = utils::string_member(asked.arguments, "path")};
  // The shell has done so before, behind a progress bar.
  const std::string not_embedded = asked.caller == Caller::session ? embed_again(asked) : "";
  const auto found = workers::wiki::WikiReader(asked.wiki).search(request, asked.task);
  if (const auto* refusal = std::get_if<Answer>(&found)) return {.value = *refusal};
  const auto& result = std::get<SearchResult>(found);
  Map hits = Map::array();
  for (const SearchHit& hit : result.hits) hits.push_back(workers::wiki::hit_document(hit));
  Map value{{"hits", hits}};
  // The document has one warning; that of the search goes first, as it is about this query.
  const std::string& warning = result.warning.empty() ? not_embedded : result.warning;
  if (!warning.empty()) value["warning"] = warning;
  return {.value = std::move(value)};
}

}  // namespace

Operation search_wiki() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  const Map citation =
      object({{"path", text("source file")}, {"first", count("line")}, {"last", count("line")}},
             {"path", "first", "last"});
  const Map hit =
      object({{"page_id", text("for read_page")},
              {"title", text("of the page")},
              {"type", text("of the page")},
              {"rel_path", text("the page's file")},
              {"section", text("the `##` heading above it, for read_page; \"\" before the first heading")},
              {"excerpt", text("of the passage")},
              {"score", Map{{"type", "number"}, {"description", "0 to 1, how sure the hit is"}}},
              {"citations", list(citation, "the source lines that the passage cites")}},
             {"page_id", "title", "section", "excerpt", "score", "citations"});
  return {
      .command = "search",
      .tool = "search_wiki",
      .title = "Search the wiki",
      .does = "Find the passages of the wiki that answer a question",
      .description =
          "Finds the passages of the wiki that answer a question about the code: by words, by names from "
          "the code in any spelling (parseHTTPHeader, parse_http_header), and by meaning. Use the words that "
          "the answer would use where you know them. Each hit gives the page and section for read_page, and "
          "the source "
          "lines it cites.",
      .example =
          "ossilar search \"who holds the write lock\" -n 3\nossilar search parseHTTPHeader --path src/net",
      .arguments = {{.name = "query",
                     .option = "QUERY",
                     .value = {},
                     .schema = text("a question, words, or names from the code in any spelling"),
                     .required = true},
                    {.name = "limit",
                     .option = "-n",
                     .value = "N",
                     .schema = number(1, static_cast<int>(workers::wiki::kMostHits),
                                      static_cast<int>(workers::wiki::kDefaultHits),
                                      "the most passages to return")},
                    {.name = "type",
                     .option = "--type",
                     .value = "TYPE",
                     .schema =
                         choice({"overview", "architecture", "module", "topic"}, "only pages of this type")},
                    {.name = "path",
                     .option = "--path",
                     .value = "PATH",
                     .schema = text("only passages about this source file or folder")}},
      .output_schema =
          object({{"hits", list(hit, "the best first")},
                  {"warning", text("that the wiki may have no answer, or what the search had to leave out")}},
                 {"hits"}),
      .call = call_search_wiki};
}

}  // namespace ossilar::operations
