// A page as it is stored: title, the authored text, and below a marker what ossilar adds.
//
//   # Title
//
//   Summary paragraph.
//
//   ## Section the author wrote
//   ...
//
//   <!-- ossilar:generated -->
//   ...
//
// Two laws hold for every text. Taking the authored text out of a stored page and finalizing it again gives
// the same page; and the authored text stands in the page byte for byte, but for line ends, which become line
// feeds (a last one is added where it is missing), and level-1 headings at its start, which repeat the title
// and are taken off with a blank line after each (a Setext heading stays where link definitions stand right
// before it).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The line that ends the authored text of a stored page.
inline constexpr std::string_view kGeneratedMarker = "<!-- ossilar:generated -->";

// The authored text of a page in two parts: what stands above its first `##` heading, and its sections.
struct Authored {
  std::string body;
  std::string summary;

  // The complete authored text, in the form in which a whole-page save takes it.
  std::string text() const;
};

struct FinalizedPage {
  std::string markdown;        // the page file's text
  std::vector<Map> citations;  // the valid ones, see citation_map(); in order, each once
  std::string summary;  // plain text: the first paragraph, or the plan's description when there is none
  std::vector<std::string> outline;  // the `##` headings of the authored text
  Authored authored;
};

// What a page links to, settled by whoever knows the other pages and the index.
struct PageLinks {
  std::vector<Map> citations;  // as FinalizedPage::citations
  // Link label, as the author wrote it between the brackets but on one line, to its target relative to the
  // page's file.
  std::vector<std::pair<std::string, std::string>> targets;
};

// The text of a save as the author's part of the page: line ends normalised and one at the end, leading
// level-1 headings off, and when the text is a whole stored page, only its authored part.
std::string authored_text(std::string_view content);

// `text`, line ends normalised, without a generated part, or all of it. The view points into `text`.
std::string_view without_generated(std::string_view text);

// The generated part of a page file's text, from its marker on, or nothing. The view points into `stored`.
std::string_view generated_of(std::string_view stored);

// The level-1 headings that authored_text() takes off the start of `content`, as plain text.
std::vector<std::string> leading_titles(std::string_view content);

// Splits a normalised authored text at its first `##` heading.
Authored split_text(std::string_view authored);

// Puts a page together; `record` (see page_record.h) ends it.
FinalizedPage assemble_page(const PagePlan& plan, const Authored& authored,
                            const std::vector<Diagram>& diagrams, PageLinks links,
                            const std::string& record = "");

// The page file's text, which has no record yet, with `record` at its end.
std::string with_record(std::string page_text, const std::string& record);

// The title that the page file is headed with, as plain text; "" when it has none.
std::string title_line(std::string_view page_text);

// The text that search works on: the page without its generated part and without its title.
std::string searchable_text(std::string_view markdown);

// The `##` headings of `text` in order, as plain text without their marks; none inside code, HTML, quotes,
// lists.
std::vector<std::string> section_headings(std::string_view text);

// The authored part of a stored page; of a text without title line or marker, all that is there. Laws: see
// above. A page without a summary stays without one: the plan's `description` stands in for it in rows and
// lists only, and is never put into the text.
Authored split_authored(std::string_view stored, std::string_view description);

}  // namespace ossilar::workers::wiki
