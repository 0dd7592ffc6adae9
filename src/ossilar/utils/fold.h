// Comparing names as people mean them.
#pragma once

#include <string>
#include <string_view>

namespace ossilar::utils {

// `text` for caseless comparison: Unicode NFKC_Casefold (utf8proc), runs of white space as one blank, none at
// the ends. Text that is not UTF-8 comes back with its white space collapsed and its case as it was.
std::string fold(std::string_view text);

// `text` with each run of blanks, tabs and line ends as one blank and none at the ends: in labels, CommonMark
// takes no other character for white space.
std::string collapse_label(std::string_view text);

// `text` in the form in which CommonMark compares link labels: full case folding of collapse_label().
std::string fold_label(std::string_view text);

}  // namespace ossilar::utils
