// The frame that every page of the site has: header with search, the tree of pages, contents, footer.
//
// Thread-safety: pure functions over an immutable site; any thread.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "ossilar/web/html.h"
#include "ossilar/web/markdown_page.h"
#include "ossilar/web/site.h"

namespace ossilar::web {

// Where the site is shown. The pages are the same but for what needs a server, and for how sources are shown.
enum class Sources { embedded, linked, none };
struct Edition {
  bool is_live = true;
  Sources sources = Sources::embedded;
  std::string forge = {};  // of linked sources: what comes before a path, as "https://host/repo/blob/COMMIT/"
  const std::set<std::string>* shown_sources = nullptr;  // of embedded ones, null for all
  std::string base_url = {};                             // of an export, "" or with "/" at its end
};

struct Asked {
  const Site& site;
  const Edition& edition;
  std::string address;  // of the page, relative to the site's root, not encoded: "pages/a/b.html"
};

// The way to `address` from the page that is asked for.
std::string link_to(const Asked& asked, const std::string& address);
// Where the lines of a citation are shown, "" for nowhere.
std::string link_to_lines(const Asked& asked, const workers::wiki::Citation& citation);
std::string link_to_source(const Asked& asked, const std::string& path);

struct Frame {
  std::string title;         // of the document, without the site's name
  std::string page_id = {};  // that the tree of pages opens at, "" for none
  std::string content = {};  // HTML
  std::vector<TocEntry> contents = {};
  std::string kind;  // a class of the body: "page", "source", ...
  bool has_mermaid = false;
  bool has_code = false;
  std::string query = {};  // what stands in the search field
};

// The whole document. Throws std::logic_error for a mistake in a template.
std::string framed(const Asked& asked, const Frame& frame);

// Fills the values of a badge: the name of the state and what it means.
void set_state(ctemplate::TemplateDictionary& values, workers::wiki::PageCondition condition);

}  // namespace ossilar::web
