// The lint looks at the authored part, as the author can mend nothing else; only the size is that of the
// whole file, which is what a reader gets. A section counts as present by heading_key(), so its case and
// markup are free.
#include "ossilar/workers/wiki/type_lint.h"

#include <algorithm>

#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/sections.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {
namespace {

// The row that the lint gets has no type, so the page's id and place tell it. Derived pages about the whole
// repository have their type as id, and modules are below the top level. A topic that the configuration puts
// below another page is taken for a module, too.
const PageType& type_of_row(const Map& row) {
  if (const PageType* own = find_page_type(utils::string_member(row, "page_id")); own != nullptr) return *own;
  const Map& level = utils::member(row, "level");
  const bool module = level.is_number_integer() && level.get<int>() > 0;
  return *find_page_type(module ? "module" : "topic");
}

Map finding(const std::string& kind, const std::string& detail) {
  return {{"kind", kind}, {"detail", detail}};
}

// By the outline and not by the text again: the draft has parsed it already.
void find_missing_sections(const Map& row, std::vector<Map>& findings) {
  const Map& outline = utils::member(utils::member(row, "build_cache"), "outline");
  const PageType& type = type_of_row(row);
  std::vector<std::string> keys;
  for (const Map& heading : outline)
    if (heading.is_string()) keys.push_back(heading_key(heading.get_ref<const std::string&>()));
  for (const std::string& required : type.required_sections) {
    const bool present = std::find(keys.begin(), keys.end(), heading_key(required)) != keys.end();
    if (!present) {
      findings.push_back(
          finding("missing-section", "a page of type " + type.name + " has a section '" + required + "'"));
    }
  }
}

void find_title_headings(const std::string& text, std::vector<Map>& findings) {
  for (const utils::Block& block : utils::top_level_blocks(text)) {
    if (block.kind != utils::BlockKind::heading || block.level != 1) continue;
    findings.push_back(
        finding("title-heading",
                "the heading '" + block.text + "' is of level 1 like the page's title; write it with ##"));
    return;  // one finding is enough to learn the rule
  }
}

}  // namespace

std::vector<Map> page_type_findings(const Map& row, const std::string& markdown) {
  std::vector<Map> findings;
  const Authored authored = split_authored(markdown, "");
  const std::string text = authored.text();
  if (utils::strip(authored.summary).empty()) {
    findings.push_back(
        finding("no-summary", "the text begins with a section; open with a paragraph that sums it up"));
  }
  find_missing_sections(row, findings);
  find_title_headings(text, findings);
  if (const std::string closer = utils::closing_line(text); !closer.empty()) {
    findings.push_back(finding("open-block", "the text ends inside a block; close it with a line " + closer));
  }
  if (markdown.size() > kLargePage) {
    findings.push_back(finding("page-size", "the page has " + std::to_string(markdown.size()) +
                                                " bytes, more than " + std::to_string(kLargePage) +
                                                "; split or shorten it"));
  }
  return findings;
}

}  // namespace ossilar::workers::wiki
