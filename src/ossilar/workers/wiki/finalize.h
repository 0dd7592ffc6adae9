// A page as it is stored: the title, the authored text, and below a marker what ossilar adds.
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
// Two laws hold for every text:
//
// - Taking the authored text out of a stored page and finalizing it again gives the same page.
// - The authored text is in the page byte for byte, with two exceptions. Line ends become line feeds, with
//   one at the end. Level-1 headings at its start repeat the title, and are taken off with a blank line
//   after each; a Setext heading stays if link definitions come right before it.
//
// The draft of a save puts pages together (host/orchestrator.cc). Everything that reads a page's text takes
// it apart here: saves of a section, the lint, search, adoption, check, commands and sessions.
//
// Threads: functions without state, to be called from any thread. Failures: none of their own; every text is
// some page. Each parses the text it is given, in time linear in its size.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The line that ends the authored text of a stored page. An HTML comment: no renderer shows it.
inline constexpr std::string_view kGeneratedMarker = "<!-- ossilar:generated -->";

// The authored text of a page in two parts.
struct Authored {
  std::string body;     // from its first `##` heading on
  std::string summary;  // what is above that heading

  // The complete authored text, in the form in which a whole-page save takes it. Puts a blank line between
  // the parts where a summary without a line feed at its end would run into the first heading.
  std::string text() const;
};

struct FinalizedPage {
  std::string markdown;        // the page file's text
  std::vector<Map> citations;  // the valid ones, see citation_map(); in order, each once
  std::string summary;  // plain text: the first paragraph, or the plan's description when there is none
  std::vector<std::string> outline;  // the `##` headings of the authored text
  Authored authored;
};

// What a page links to. Made by page_links() of citations.h, which knows the other pages and the index.
struct PageLinks {
  std::vector<Map> citations;  // as FinalizedPage::citations
  // From a link label, as it is between the author's brackets but on one line, to its target relative to the
  // page's file.
  std::vector<std::pair<std::string, std::string>> targets;
};

// The text of a save as the author's part of the page: line ends normalised and one at the end, leading
// level-1 headings off. Of a whole stored page, as agents hand in after reading it, the authored part.
std::string authored_text(std::string_view content);

// `text`, whose line ends must be normalised, without its generated part; all of it if it has none. The view
// points into `text`.
std::string_view without_generated(std::string_view text);

// The generated part of a page file's text, from its marker on; "" if it has none. The view points into
// `stored`.
std::string_view generated_of(std::string_view stored);

// The level-1 headings that authored_text() takes off the start of `content`, as plain text.
std::vector<std::string> leading_titles(std::string_view content);

// Splits a normalised authored text at its first `##` heading.
Authored split_text(std::string_view authored);

// Puts a page together. `authored` is as split_text() or split_authored() gives it, and `record` (see
// pages/page_record.h) ends the page.
FinalizedPage assemble_page(const PagePlan& plan, const Authored& authored,
                            const std::vector<Diagram>& diagrams, PageLinks links,
                            const std::string& record = "");

// `page_text`, the text of a page file without a record, with `record` at its end.
std::string with_record(std::string page_text, const std::string& record);

// The title in the first line of the page file, as plain text; "" when that is no `# ` heading.
std::string title_line(std::string_view page_text);

// A title as title_line() finds it: the heading holds each run of blanks as one, and no marks.
std::string title_as_heading(std::string_view title);

// The page file's text under another title.
std::string with_title(std::string_view page_text, const std::string& title);

// The text that search works on: the page without its generated part and without its title.
std::string searchable_text(std::string_view markdown);

// The level-2 headings of `text` in order, as plain text without their marks. Headings inside code, HTML,
// quotes and lists are not among them.
std::vector<std::string> section_headings(std::string_view text);

// The authored part of a stored page; of a text without title line or marker, all that is there.
// `description`, the plan's, is not used: it stands in for a missing summary in rows and lists, but never in
// the text.
Authored split_authored(std::string_view stored, std::string_view description);

}  // namespace ossilar::workers::wiki
