// Pages and their sections: what finalize.h and sections.h promise of every text. What follows the first
// record separator (U+001E) is what replaces a section.
#include <algorithm>

#include "laws.h"
#include "ossilar/workers/wiki/sections.h"
#include "support/rendered.h"
#include "support/wiki_texts.h"

namespace wiki = ossilar::workers::wiki;
using ossilar::fuzz::require;

namespace {

constexpr std::size_t kMostSections = 8;

void check_page(const std::string& text) {
  const wiki::FinalizedPage page = ossilar::testing::saved(text);
  const std::string authored = wiki::authored_text(text);
  require(wiki::split_authored(page.markdown, "").text() == authored, "the authored text comes back",
          page.markdown);
  require(ossilar::testing::saved(page.markdown).markdown == page.markdown, "saved again it is the same file",
          page.markdown);
  std::vector<std::string> seen;
  for (const auto& [line, heading] : ossilar::testing::rendered(page.markdown).headings)
    if (heading.starts_with("## ")) seen.push_back(heading.substr(3));
  // What a bracket in a heading links to does not change what the section is called.
  bool same = seen.size() == page.outline.size();
  for (std::size_t i = 0; same && i < seen.size(); ++i) {
    const std::string& heading = page.outline[i];
    same = heading.find_first_of("[]") != heading.npos || ossilar::testing::bare(heading) == seen[i];
  }
  require(same, "headings are the parser's",
          ossilar::utils::join(seen, "|") + "\n" + ossilar::utils::join(page.outline, "|") + "\n" +
              page.markdown);
}

void check_sections(const std::string& body, const std::string& replacement) {
  std::size_t count = 0;
  for (const wiki::Section& section : wiki::sections_of(body)) {
    if (++count > kMostSections) break;
    const auto text = wiki::section_text(body, section.heading);
    require(text && wiki::replace_section(body, section.heading, *text) == body, "replace(s, get(s)) == s",
            body);
  }
  for (const wiki::Section& section : wiki::sections_of(body)) {
    const auto replaced = wiki::replace_section(body, section.heading, replacement);
    const auto begin = static_cast<std::size_t>(section.text.data() - body.data());
    require(replaced && replaced->starts_with(body.substr(0, begin)) &&
                replaced->ends_with(body.substr(begin + section.text.size())),
            "no byte outside the section changes", replaced.value_or(""));
    break;  // a name means its first section
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = ossilar::fuzz::text_of(data, size);
  const std::string text = input.substr(0, input.find('\x1e'));
  check_page(text);
  check_sections(wiki::authored_text(text), input.substr(std::min(input.size(), text.size() + 1)));
  return 0;
}
