// Reads a stored page, one section of it, or what its author wrote. A session gets a long text in portions,
// cut between characters: JSON cannot hold half of one.
//
// Nothing is kept between two calls, so each portion is cut from the file as it is then. `version` in every
// answer tells whether the page changed in between.
#include <algorithm>

#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/operations/session_following.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::operations {
namespace {

using workers::wiki::Answer;
using workers::wiki::StoredPage;

// Bytes of text in one result: some 10,000 tokens, and clients cut a result at about 25,000. It may be sent
// twice, as structured content and as text.
constexpr std::size_t kPortion = std::size_t{40} * 1024;
// Only because an integer's schema has an upper bound: content is at most 1 MiB, and no page comes near this.
constexpr int kLongestPage = 1 << 30;

Answer no_section(const std::string& page_id, const std::string& heading, const std::string& authored) {
  return {{"error", "page '" + page_id + "' has no section '" + std::string(utils::strip(heading)) + "'"},
          {"page_id", page_id},
          {"sections", workers::wiki::section_headings(authored)}};
}

// Adds the portion of `text` that begins at `offset`, a byte; an offset inside a character is moved back to
// its start. An offset beyond the end gives an empty portion.
void add_portion(Map& result, std::string_view text, std::size_t offset) {
  const std::size_t begin = utils::utf8_prefix(text, std::min(offset, text.size())).size();
  const std::string_view portion = utils::utf8_prefix(text.substr(begin), kPortion);
  result["text"] = portion;
  if (begin + portion.size() < text.size()) result["next_offset"] = begin + portion.size();
}

Result call_read_page(const Asked& asked) {
  const std::string asked_id = utils::string_member(asked.arguments, "page_id");
  follow_before_reading(asked, asked_id);
  const auto found = workers::wiki::WikiReader(asked.wiki).read_page(asked_id);
  if (const auto* refusal = std::get_if<Answer>(&found)) return {.value = *refusal};
  const auto& page = std::get<StoredPage>(found);
  const std::string& page_id = page.page_id;
  // Sections are looked for in the authored text alone: a save can replace those, and nothing of the
  // generated part.
  const std::string authored = workers::wiki::split_authored(page.text, "").text();

  std::string text = page.text;
  if (asked.arguments.contains("section")) {
    const auto heading = utils::string_member(asked.arguments, "section");
    auto section = workers::wiki::section_text(authored, heading);
    if (!section) return {.value = no_section(page_id, heading, authored)};
    text = *std::move(section);
  } else if (utils::string_member(asked.arguments, "part") == "authored") {
    text = authored;
  }
  Map result{{"page_id", page_id},
             {"version", page.version},
             {"rel_path", "pages/" + page_id + ".md"},
             {"sections", workers::wiki::section_headings(authored)},
             {"size", text.size()}};
  if (asked.caller == Caller::shell) {
    result["text"] = text;
  } else {
    add_portion(result, text, asked.arguments.value("offset", std::size_t{0}));
  }
  return {.value = std::move(result)};
}

}  // namespace

Operation read_page() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  return {
      .command = "show",
      .tool = "read_page",
      .title = "Read a wiki page",
      .does = "Print a stored page",
      .description =
          "Returns a stored page as Markdown: the whole page, one `##` section, or with part \"authored\" "
          "only the author's text, as save_page takes it. Pass `version` to save_page as `if_version`. A "
          "long page is split: if the result has `next_offset`, call again with it as `offset`.",
      .example = "ossilar show overview --section Purpose",
      .arguments = {page_argument(),
                    {.name = "section",
                     .option = "--section",
                     .value = "HEADING",
                     .schema = needed_text("a `##` heading of the page, with or without its marks")},
                    {.name = "part",
                     .option = "--authored",
                     .value = {},
                     .schema =
                         choice({"whole", "authored"},
                                "only the author's text, as a save takes it, instead of the whole page file"),
                     .flag = "authored"},
                    {.name = "offset",
                     .option = {},
                     .value = {},
                     .schema = number(0, kLongestPage, 0,
                                      "where to continue: `next_offset` of the previous call")}},
      .output_schema = object({{"page_id", text("the page; its id now, if you asked for a former one")},
                               {"version", text("version of the page as it is now")},
                               {"rel_path", text("its file, relative to the wiki's directory")},
                               {"sections", strings("the `##` headings of the page")},
                               {"size", count("bytes of the whole requested text")},
                               {"text", text("Markdown")},
                               {"next_offset", count("there is more text; pass this as `offset`")}},
                              {"page_id", "version", "rel_path", "sections", "size", "text"}),
      .call = call_read_page};
}

}  // namespace ossilar::operations
