#include "ossilar/mcp/tools/schemas.h"
#include "ossilar/mcp/tools/tools.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/host/saving.h"

namespace ossilar::mcp {
namespace {

using workers::wiki::SaveOutcome;
using workers::wiki::SaveRequest;
using workers::wiki::Wiki;

std::optional<std::string> text_of(const Map& arguments, const char* key) {
  return arguments.contains(key) ? std::optional(utils::string_member(arguments, key)) : std::nullopt;
}

std::vector<std::string> notes_on(const Wiki& wiki, const SaveOutcome& outcome) {
  if (outcome.kept.empty()) return {};
  const auto file = (wiki.paths().drafts() / outcome.kept).lexically_relative(wiki.paths().root);
  return {"Nothing was saved. What you sent is kept in " + file.string() +
          ", to be read as ossilar://drafts/" + outcome.kept +
          " too. Mend it as the error says and call save_page again."};
}

std::string message_of(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& error) {
    return error.what();
  }
}

ToolResult call(Wiki& wiki, const Map& arguments, utils::Task& task) {
  const SaveRequest request{.page_id = utils::string_member(arguments, "page_id"),
                            .content = utils::string_member(arguments, "content"),
                            .section = text_of(arguments, "section"),
                            .title = text_of(arguments, "title"),
                            .if_version = text_of(arguments, "if_version")};
  if (auto refusal = workers::wiki::refuse_request(request)) return {*std::move(refusal), {}};
  SaveOutcome outcome = workers::wiki::save_page(wiki, request, task);
  auto notes = notes_on(wiki, outcome);
  if (outcome.failure) return {Map{{"error", message_of(outcome.failure)}}, std::move(notes)};
  return {std::move(outcome.answer), std::move(notes)};
}

}  // namespace

// `content` and the texts beside it may be empty as far as the schema goes: what is wrong with them is the
// answer's to say.
Tool save_page_tool() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  return {
      .name = kSavePage,
      .title = "Save a wiki page",
      .description =
          "Checks a page that you wrote and stores it whole, or refuses it and says what to mend; nothing is "
          "saved "
          "by halves. Write Markdown: a summary paragraph first, then `##` sections, no `#` title. Every "
          "claim about "
          "the code cites its source outside code as [path/to/file:L10-L20] with lines that exist; link "
          "other pages "
          "as [Their title]. With `section`, `content` replaces that `##` section alone, so that others may "
          "change "
          "the rest meanwhile. Pass the `version` that read_page or page_context gave as `if_version`: if "
          "someone "
          "saved since, you get the difference instead of undoing their work. Read the warnings of a saved "
          "page and "
          "mend what they name. Save the same page again as often as you like.",
      .reads_only = false,
      .input_schema = arguments(
          {{"page_id", needed_text("a page id, as list_pages gives it")},
           {"content",
            text("the page's Markdown, or with `section` the text of that section; at most 1 MiB")},
           {"section",
            text("a `##` heading of the stored page, with or without its marks: replace only that section")},
           {"title", text("rename the page; its former titles keep leading to it")},
           {"if_version",
            text("save only if the page still is this version; \"new\": only if it is not written yet")}},
          {"page_id", "content"}),
      .output_schema =
          object({{"saved", Map{{"type", "boolean"}, {"description", "true: page and index are on disk"}}},
                  {"page_id", text("the page")},
                  {"rel_path", text("its file, relative to the wiki's directory")},
                  {"citations", count("its valid citations")},
                  {"words", count("its words of prose")},
                  {"warnings", strings("what to mend although the page was saved")},
                  {"version", text("with `if_version`: the page's version now")},
                  {"error", text("why nothing was saved, and what to do")},
                  {"valid_citations", count("of a page refused for too few: how many there were")},
                  {"sections", strings("when the section does not exist: the headings that do")},
                  {"similar", strings("when the page is not planned: page ids that come near")},
                  {"diff", text("when the page changed: a unified diff of what changed")}}),
      .call = call};
}

}  // namespace ossilar::mcp
