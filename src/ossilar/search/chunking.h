// Cutting a page's text into passages.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::search {

struct Passage {
  // The plain text of the `##` heading it stands under, "" above the first and under a `#`; of a heading
  // longer than kLongestPassage its beginning.
  std::string section;
  std::string text;
};

// Sizes in bytes. A passage of a few paragraphs is about what a reader takes in at once and what an embedding
// of a few hundred dimensions tells apart.
inline constexpr std::size_t kTargetPassage = 900;
inline constexpr std::size_t kLongestPassage = 1800;

// The passages of `markdown` (line ends are line feeds) in order. A passage lies within one section, ends at
// a block's end where it can, is at most kLongestPassage long unless it is one code block, and never holds a
// part of a code block, be it in a list or quote. A heading stays with the text below it, but for a code
// block too long for both. No passage is blank; every character of `markdown` that is not white space between
// blocks is in exactly one passage. Time and memory are linear in the text.
//
// Thread-safety: may be called from any thread.
std::vector<Passage> passages(std::string_view markdown);

}  // namespace ossilar::search
