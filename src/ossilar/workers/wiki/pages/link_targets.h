// The link definitions that a save puts below a page's text, as they lead from one page file to another:
//
//   [Other page]: ../core/net.md
//
// check/renaming.cc rewrites them when a page gets another id, and check/removal.cc names the pages that have
// one to a page that goes. An author's own links are none of these.
//
// Pure functions over texts of page files: any thread may call, and no text makes them fail.
#pragma once

#include <string>
#include <string_view>

namespace ossilar::workers::wiki {

// Whether the page `page_id` with this text has a definition that leads to the page `target`.
bool links_to(std::string_view page_text, const std::string& page_id, const std::string& target);

struct Renamed {
  std::string from;
  std::string to;  // the page's id now
};

// `page_text` with its definitions as they are after the renaming: those that lead to the page lead to its
// new file, and those of the page itself start from there. Every other byte stays.
std::string relinked(std::string_view page_text, const std::string& page_id, const Renamed& renamed);

}  // namespace ossilar::workers::wiki
