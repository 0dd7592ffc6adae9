#include "ossilar/cli/commands.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/host/wiki_reader.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::cli {
namespace {

using workers::wiki::Answer;

Answer no_section(const ShowArguments& arguments, const std::string& authored) {
  return {{"error", "page '" + arguments.page_id + "' has no section '" + *arguments.section + "'"},
          {"sections", workers::wiki::section_headings(authored)}};
}

}  // namespace

int run_show(const Place& place, const ShowArguments& arguments, Output& output) {
  require_utf8_argument(arguments.page_id, "PAGE");
  require_utf8_argument(arguments.section.value_or(""), "--section");
  const auto wiki = open_at(place, "show");
  const auto found = workers::wiki::WikiReader(*wiki).read_page(arguments.page_id);
  if (const auto* refusal = std::get_if<Answer>(&found)) return print_refusal(*refusal, output);

  std::string text = std::get<workers::wiki::StoredPage>(found).text;
  const std::string authored = workers::wiki::split_authored(text, "").text();
  if (arguments.section) {
    const auto section = workers::wiki::section_text(authored, *arguments.section);
    if (!section) return print_refusal(no_section(arguments, authored), output);
    text = *section;
  } else if (arguments.authored) {
    text = authored;
  }
  output.document(Map{{"page_id", arguments.page_id},
                      {"rel_path", "pages/" + arguments.page_id + ".md"},
                      {"sections", workers::wiki::section_headings(authored)},
                      {"text", text}});
  output.raw(text);
  return kDone;
}

}  // namespace ossilar::cli
