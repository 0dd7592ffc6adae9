// Cutting a page's text into passages, the units that are embedded, indexed and found. Called in workers/wiki
// by passages/page_chunks.cc, for each page that is drafted or adopted, and by check/inspection.cc, which
// compares the stored passages with the page: the same text must always give the same passages.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::search {

struct Passage {
  // The plain text of the `##` heading above it, cut to kLongestPassage bytes. "" before the first such
  // heading, and after a `#` heading until the next `##`.
  std::string section;
  std::string text;
};

// Sizes in bytes: a few paragraphs. Smaller passages lose their context, larger ones mix topics, which blurs
// their embedding and makes a poor search hit. The limit is twice the target, so that a text that has to be
// cut has a window as long as the target in which to look for a good place.
inline constexpr std::size_t kTargetPassage = 900;
inline constexpr std::size_t kLongestPassage = 1800;

// The passages of `markdown` (line ends are line feeds) in order.
//
// - A passage lies within one section and ends at the end of a block where possible.
// - It has at most kLongestPassage bytes, unless it is a single code block.
// - Code blocks are never cut, not even inside a list or a quote.
// - A heading stays with the text below it, unless that is a code block that leaves no room for the heading.
// - No passage is blank. White space at the ends of passages is left out; all else is in exactly one passage.
//
// Time and memory are linear in the text. Stray bytes that are not UTF-8 are kept and do no harm.
//
// Thread-safety: may be called from any thread.
std::vector<Passage> passages(std::string_view markdown);

}  // namespace ossilar::search
