// A page as the parser itself sees it.
#pragma once

#include <cmark-gfm.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/utils/fold.h"
#include "ossilar/utils/text.h"

namespace ossilar::testing {

// A heading's text without brackets: they show where no definition makes them a link, in a part of a page
// more often than in the page.
inline std::string bare(std::string text) {
  std::erase_if(text, [](char c) { return c == '[' || c == ']'; });
  return std::string(utils::strip(utils::collapse_label(text)));
}

// Two code points that the parser's renderer writes as bytes of their own.
inline std::string in_utf8(std::string_view rendered) {
  std::string text;
  for (const char c : rendered)
    c == '\xfe' ? text += "\xef\xbf\xbe" : c == '\xff' ? text += "\xef\xbf\xbf" : text += c;
  return text;
}

// What the parser sees in a page.
struct Rendered {
  std::vector<std::pair<std::size_t, std::string>>
      headings;  // at the top level: line from 1, and its mark, a blank and its text
  std::set<std::string> urls;
};

inline Rendered rendered(const std::string& markdown) {
  Rendered out;
  const std::unique_ptr<cmark_node, decltype(&cmark_node_free)> root(
      cmark_parse_document(markdown.data(), markdown.size(), CMARK_OPT_DEFAULT), &cmark_node_free);
  const std::unique_ptr<cmark_iter, decltype(&cmark_iter_free)> iter(cmark_iter_new(root.get()),
                                                                     &cmark_iter_free);
  for (auto event = cmark_iter_next(iter.get()); event != CMARK_EVENT_DONE;
       event = cmark_iter_next(iter.get())) {
    if (event != CMARK_EVENT_ENTER) continue;
    cmark_node* node = cmark_iter_get_node(iter.get());
    if (cmark_node_get_type(node) == CMARK_NODE_LINK) out.urls.insert(cmark_node_get_url(node));
    if (cmark_node_get_type(node) != CMARK_NODE_HEADING || cmark_node_parent(node) != root.get()) continue;
    const std::unique_ptr<char, decltype(&std::free)> text(cmark_render_plaintext(node, CMARK_OPT_DEFAULT, 0),
                                                           &std::free);
    const std::string mark(static_cast<std::size_t>(cmark_node_get_heading_level(node)), '#');
    out.headings.emplace_back(cmark_node_get_start_line(node), mark + " " + bare(in_utf8(text.get())));
  }
  return out;
}

}  // namespace ossilar::testing
