// A refusal itself has few keys, and clients know them; what teaches its author comes beside it.
#include "ossilar/operations/saving_texts.h"

#include <utility>

#include "ossilar/operations/schemas.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/text_check.h"
#include "ossilar/workers/wiki/host/saving.h"
#include "ossilar/workers/wiki/pages/section_place.h"

namespace ossilar::operations {

using workers::wiki::SaveRequest;
using workers::wiki::TextCheck;

SaveRequest request_of(const Map& arguments) {
  return {.page_id = utils::string_member(arguments, "page_id"),
          .content = utils::string_member(arguments, "content"),
          .section = optional_text(arguments, "section"),
          .title = optional_text(arguments, "title"),
          .if_version = optional_text(arguments, "if_version"),
          .place = optional_text(arguments, "place")};
}

// The schemas allow empty texts: the save's own answer says what is wrong with one, and what to do.
std::optional<Map> refuse_text(const Map& arguments) {
  const SaveRequest request = request_of(arguments);
  if (auto refusal = workers::wiki::refuse_request(request)) return refusal;
  return workers::wiki::refuse_place(request);
}

Result preview(const Asked& asked, const SaveRequest& request) {
  Result result{.value = workers::wiki::preview_page(asked.wiki, request)};
  TextCheck check = workers::wiki::check_text(asked.wiki, request.page_id, request.content);
  if (result.value.contains("error")) {
    result.notes = std::move(check.faults);
    for (std::string& note : notes_on_blank(request)) result.notes.push_back(std::move(note));
    return result;
  }
  Map cited = Map::array();
  for (const auto& [label, line] : check.cited) cited.push_back({{"citation", label}, {"line", line}});
  result.value["cited"] = std::move(cited);
  return result;
}

std::vector<std::string> notes_on_refusal(const Asked& asked, const SaveRequest& request) {
  return workers::wiki::check_text(asked.wiki, request.page_id, request.content).faults;
}

std::vector<std::string> notes_on_blank(const SaveRequest& request) {
  const bool is_blank = utils::strip(request.content).empty();
  if (!is_blank || !request.section || request.place) return {};
  return {"To remove the section '" + *request.section +
          "' from the page, save with this section, empty content and place \"remove\"."};
}

std::vector<Argument> text_arguments() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  return {page_argument(),
          {.name = "content",
           .option = "FILE",
           .value = {},
           .schema = text("the page's Markdown, or with `section` the text of that section; at most 1 MiB; "
                          "\"\" with `place` \"remove\""),
           .required = true,
           .from_file = true,
           .is_needless = [](const Map& given) { return workers::wiki::removes_section(request_of(given)); }},
          {.name = "section",
           .option = "--section",
           .value = "HEADING",
           .schema = text("a `##` heading of the stored page, with or without its marks: replace only that "
                          "section; with `place` the heading to add or remove")},
          {.name = "place",
           .option = "--place",
           .value = "WHERE",
           .schema = text("\"after: HEADING\" or \"last\": add `section` behind that one or at the page's "
                          "end; \"remove\": take `section` out of the page")},
          {.name = "title",
           .option = "--title",
           .value = "TITLE",
           .schema = text("rename the page; links by its former titles still work")}};
}

Map answer_properties() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  return {{"page_id", text("the page")},
          {"rel_path", text("its file, relative to the wiki's directory")},
          {"citations", count("number of valid citations")},
          {"words", count("number of words of prose")},
          {"error", text("why it is refused, and what to do")},
          {"valid_citations", count("if refused for too few citations: how many were valid")},
          {"sections", strings("if the section does not exist: the headings that do")},
          {"similar", strings("if the page is not planned: similar page ids")}};
}

}  // namespace ossilar::operations
