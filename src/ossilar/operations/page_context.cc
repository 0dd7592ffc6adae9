// What the author of a page needs to know before writing it. The version of the stored page comes with it: an
// author who saves onto that version cannot undo what somebody else saved meanwhile.
//
// A page that is planned but not written has a context as well, so a page without a file is no refusal here:
// its version is the word with which a save is made onto no page (kNoVersion).
#include <algorithm>

#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/operations/session_following.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/host/wiki_reader.h"

namespace ossilar::operations {
namespace {

using workers::wiki::Answer;
using workers::wiki::PageContext;
using workers::wiki::StoredPage;

// A page about a whole repository may have thousands of source files, whose names alone would fill a result.
// What matters of them is in the grounding, and `source_file_count` says how many there are.
constexpr std::size_t kMostFiles = 100;

// The author's text that a session gets with the context, so that a refresh needs one call: some 6,000
// tokens, more than any page type asks for. What is beyond it read_page has.
constexpr std::size_t kLongestText = std::size_t{24} * 1024;

std::vector<std::string> first_files(const std::vector<std::string>& files) {
  return {files.begin(), files.begin() + static_cast<std::ptrdiff_t>(std::min(files.size(), kMostFiles))};
}

Result call_page_context(const Asked& asked) {
  const workers::wiki::WikiReader reader(asked.wiki);
  const std::string page_id = utils::string_member(asked.arguments, "page_id");
  follow_before_reading(asked, page_id);
  const auto found = reader.page_context(page_id);
  if (const auto* refusal = std::get_if<Answer>(&found)) return {.value = *refusal};
  const auto& context = std::get<PageContext>(found);
  const auto stored = reader.read_page(page_id);
  const auto* page = std::get_if<StoredPage>(&stored);
  const bool is_whole = asked.caller == Caller::shell;
  Map value = workers::wiki::author_brief(context);
  value["min_citations"] = asked.wiki.config().min_citations_per_page;
  if (!context.changes.empty() || is_whole) value["changes"] = context.changes;
  value["version"] = page != nullptr ? page->version : std::string(workers::wiki::kNoVersion);
  if (page != nullptr) {
    const std::string authored = workers::wiki::split_authored(page->text, "").text();
    value["text"] = is_whole ? std::string_view(authored) : utils::utf8_prefix(authored, kLongestText);
    if (!is_whole && authored.size() > kLongestText) value["text_is_cut"] = true;
  }
  value["source_files"] = is_whole ? context.grounding.files : first_files(context.grounding.files);
  value["source_file_count"] = context.grounding.files.size();
  if (is_whole) value["symbols"] = context.grounding.symbols;
  value["grounding"] = context.grounding.text;
  return {.value = std::move(value)};
}

}  // namespace

Operation page_context() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  const Map words = object(
      {{"least", count("fewest words of prose")}, {"most", count("most words of prose")}}, {"least", "most"});
  return {.command = "context",
          .tool = "page_context",
          .title = "Get what a page's author needs",
          .does = "Print what the author of a page needs to know",
          .description =
              "Returns what you need to write or update a page: its purpose, required sections, how many "
              "words, what the wiki's owner asks for (steering), its source files, and in `grounding` their "
              "symbols and excerpts with line numbers. Read the source files as well before you write. If "
              "the page "
              "is stale, `changes` has each sentence in doubt with a diff of the text that it cites: rewrite "
              "it in `text`, the page as it is, or call confirm_page if it still holds. Pass `version` to "
              "save_page as `if_version`, so that you "
              "overwrite nobody's work.",
          .example = "ossilar context overview",
          .arguments = {page_argument()},
          .output_schema = object(
              {{"page_id", text("the page")},
               {"title", text("its title; save with a title to rename it")},
               {"type", text("what kind of page it is")},
               {"description", text("what the page is about")},
               {"purpose", text("what a page of this type is for")},
               {"required_sections", strings("`##` headings that the page must have")},
               {"words", words},
               {"min_citations", count("a page with fewer valid citations is refused")},
               {"steering", text("what the wiki's owner asks of the page")},
               {"changes", text("Markdown: what the page cites and how it changed since; start with it")},
               {"text", text("what the page's author wrote, if it is stored")},
               {"text_is_cut", flag("`text` is only its beginning; read_page has all of it")},
               {"version", text("version of the stored page, or \"new\" if it is not written yet")},
               {"source_files", strings("the first hundred source files of the page")},
               {"source_file_count", count("number of its source files")},
               {"grounding", text("Markdown: files with line counts, symbols, excerpts")}},
              {"page_id", "title", "required_sections", "words", "min_citations", "version", "grounding"}),
          .call = call_page_context};
}

}  // namespace ossilar::operations
