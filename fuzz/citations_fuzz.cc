// Citations: what counts as one is what a reader sees as a link to its lines.
#include <algorithm>
#include <set>

#include "laws.h"
#include "support/rendered.h"
#include "support/wiki_texts.h"

namespace wiki = ossilar::workers::wiki;
using ossilar::fuzz::require;

namespace {

std::set<std::string> links_to_source(const std::string& page) {
  std::set<std::string> links = ossilar::testing::rendered(page).urls;
  std::erase_if(links, [](const std::string& url) { return !url.starts_with("../../../"); });
  return links;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = ossilar::fuzz::text_of(data, size);
  const wiki::Brackets brackets = ossilar::testing::brackets_of(wiki::authored_text(text));
  for (const wiki::Citation& citation : brackets.valid) {
    const auto* file = ossilar::testing::cited_tree().find(citation.path);
    require(file != nullptr && 1 <= citation.first && citation.first <= citation.last &&
                citation.last <= file->lines,
            "a valid citation is of lines that are there", citation.path);
  }
  for (const std::string& label : brackets.invalid)
    require(!wiki::invalid_citation_warning(label, ossilar::testing::cited_tree()).empty(), "it says why",
            label);
  for (const std::string& label : brackets.malformed)
    require(!wiki::malformed_citation_warning(label).empty(), "it says how", label);

  std::set<std::string> counted;
  for (const auto& [label, url] : wiki::page_links(brackets, "parts/mine", "wiki").targets)
    if (wiki::parse_citation(label)) counted.insert(url);
  const std::string page = ossilar::testing::saved(text).markdown;
  const std::set<std::string> links = links_to_source(page);
  require(std::includes(links.begin(), links.end(), counted.begin(), counted.end()), "what counts is a link",
          page);
  // An author may spell out such a link.
  counted.merge(links_to_source(wiki::authored_text(text)));
  require(std::includes(counted.begin(), counted.end(), links.begin(), links.end()), "what is a link counts",
          page);
  return 0;
}
