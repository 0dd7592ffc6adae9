// Makes names comparable: two that people, or the Markdown parser, take for the same fold to the same text.
//
// Titles, headings and what is typed for a completion are compared by fold() (workers/wiki,
// mcp/completion.cc), citations and link labels by fold_label(). The words of a search are folded part by
// part (identifiers.h).
//
// Thread-safety: every function may be called from any thread. Text that is not UTF-8 is no failure.
#pragma once

#include <string>
#include <string_view>

namespace ossilar::utils {

// `text` for caseless comparison: Unicode's NFKC_Casefold (utf8proc), each run of white space as one blank,
// none at the ends. Text that is not UTF-8 only has its white space collapsed and keeps its case.
std::string fold(std::string_view text);

// `text` with each run of blanks, tabs and line ends as one blank and none at the ends. CommonMark takes no
// other character in a label for white space, not even a form feed or a no-break space.
std::string collapse_label(std::string_view text);

// `text` in the form in which CommonMark compares link labels: collapse_label() with full case folding, and
// no normalisation, so a composed and a decomposed accent are two labels.
std::string fold_label(std::string_view text);

}  // namespace ossilar::utils
