// What the author of a page needs to know before writing it. The version of the stored page comes with it: an
// author who saves onto that version cannot undo what somebody else saved meanwhile.
//
// A page that is planned but not written has a context as well, so a page without a file is no refusal here:
// its version is the word with which a save is made onto no page (kNoVersion).
#include <algorithm>

#include "ossilar/operations/doubts.h"
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/operations/session_following.h"
#include "ossilar/operations/tokens.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/context_request.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/finalize.h"

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

// In tokens (tokens.h).
constexpr int kDefaultBudget = 12000;  // half of what clients take as one result
constexpr int kLeastBudget = 3000;
constexpr int kMostBudget = 40000;
// What the sources get at least, whatever the page's own text takes of the budget.
constexpr std::size_t kLeastRoom = std::size_t{8} * 1024;
constexpr std::size_t kMostDoubts = 50;

std::vector<std::string> focus_of(const Map& arguments) {
  const Map& given = utils::member(arguments, "focus");
  return given.is_array() ? given.get<std::vector<std::string>>() : std::vector<std::string>();
}

// The citations of the stored page that are in doubt, so that its text can stay as the author wrote it.
Map marks_of(const Asked& asked, const std::string& page_id) {
  for (const auto& page : workers::wiki::WikiReader(asked.wiki).page_states(workers::wiki::Look::spared))
    if (page.page_id == page_id) return doubt_list(page.doubts, kMostDoubts);
  return Map::array();
}

// What the budget leaves beside `value`. A sixteenth is for the escapes of line feeds and quotes in JSON.
std::size_t room_beside(const Map& value, const Map& arguments) {
  const std::size_t all = arguments.value("budget", std::size_t{kDefaultBudget}) * kBytesOfToken;
  const std::size_t taken = utils::json_text(value).size();
  return std::max(all > taken ? (all - taken) / 16 * 15 : 0, kLeastRoom);
}

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
    if (Map marks = marks_of(asked, page_id); is_whole || !marks.empty()) value["doubts"] = std::move(marks);
  }
  value["source_files"] = is_whole ? context.grounding.files : first_files(context.grounding.files);
  value["source_file_count"] = context.grounding.files.size();
  if (is_whole) value["symbols"] = context.grounding.symbols;
  auto [text, unknown] = workers::wiki::requested_context(
      asked.wiki, context, {.room = room_beside(value, asked.arguments), .focus = focus_of(asked.arguments)});
  value["grounding"] = std::move(text);
  if (!unknown.empty()) value["unknown_focus"] = std::move(unknown);
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
              "words, what the wiki's owner asks for (steering), its source files, and in `grounding` every "
              "public symbol of them and excerpts with line numbers, within `budget`; `focus` shows what you "
              "name first. Read the source files as well before you write, or read_source. If "
              "the page "
              "is stale, `changes` has each sentence in doubt with a diff of the text that it cites: rewrite "
              "it in `text`, the page as it is, or call confirm_page if it still holds. Pass `version` to "
              "save_page as `if_version`, so that you "
              "overwrite nobody's work.",
          .example = "ossilar context overview\nossilar context overview --budget 20000 --focus src/main.cc",
          .arguments = {page_argument(),
                        {.name = "budget",
                         .option = "--budget",
                         .value = "TOKENS",
                         .schema = number(kLeastBudget, kMostBudget, kDefaultBudget,
                                          "how many tokens the result may take, at four bytes each")},
                        {.name = "focus",
                         .option = "--focus",
                         .value = "WHAT",
                         .schema = list(needed_text("a name"),
                                        "what to show first: source files, lines of one (src/a.cc:L10-L60), "
                                        "symbols, or sections of the stored page for what they cite")},
                        structured_argument()},
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
               {"doubts", list(doubt_schema(), "citations in `text` that are not what or where they were")},
               {"version", text("version of the stored page, or \"new\" if it is not written yet")},
               {"source_files", strings("the first hundred source files of the page")},
               {"source_file_count", count("number of its source files")},
               {"unknown_focus", strings("of the focus what names nothing, with what may be meant")},
               {"grounding", text("Markdown: the pages around it, files with their symbols, excerpts")}},
              {"page_id", "title", "required_sections", "words", "min_citations", "version", "grounding"}),
          .is_text_once = true,
          .call = call_page_context};
}

}  // namespace ossilar::operations
