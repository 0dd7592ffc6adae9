// An author's Markdown as the HTML of a page: safe, with its citations and page titles as links, marks on
// the sentences that are in doubt, and a table of contents.
//
// What an author wrote is text or one of CommonMark's elements, never markup: raw HTML is dropped, and a link
// goes to the wiki, to an indexed source, or to an http, https or mailto address. Images are shown as links,
// since a page loads nothing from elsewhere.
//
// Thread-safety: may be called from any thread. Failures: none; every text is some page.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/citing/follow.h"

namespace ossilar::web {

// What is doubtful about one citation at its place in the text.
struct CitationMark {
  workers::wiki::Citation citation;
  workers::wiki::CitationState state = workers::wiki::CitationState::unknown;
  std::string says;                 // the doubt in words
  std::string now_address;          // of the lines where the text is now, or what stands there; "" for none
  std::optional<std::string> diff;  // unified, from the cited text to today's; none when it is not to be had
};

// Where links lead, as they are to stand in `href`. An empty address makes no link.
struct PageAddresses {
  std::function<std::string(const workers::wiki::Citation& citation)> lines;
  std::function<std::string(const std::string& page_id)> page;
  // For a relative link of an author's own, such as "../../src/a.cc".
  std::function<std::string(std::string_view target)> relative;
};

struct TocEntry {
  int level = 2;  // of the heading as shown, 2 to 6
  std::string id;
  std::string text;
};

struct PageHtml {
  std::string html;
  std::vector<TocEntry> contents;
  bool has_mermaid = false;
  bool has_code = false;
};

// `authored` is the authored text and `brackets` what its brackets mean; `page_id` and `wiki_dir` as for
// page_links(). `marks` are those of its citations in doubt, in the order of the text.
PageHtml page_html(const std::string& authored, const workers::wiki::Brackets& brackets,
                   const std::string& page_id, const std::string& wiki_dir,
                   const std::vector<CitationMark>& marks, const PageAddresses& addresses);

}  // namespace ossilar::web
