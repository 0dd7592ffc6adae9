// The tree of pages is whole in a small wiki. In a large one only the way to the page is open: a page would
// otherwise be as large as the wiki, and an export as large as its square.
#include "ossilar/web/frame.h"

#include <algorithm>
#include <set>
#include <utility>

#include "ossilar/web/address.h"
#include "ossilar/web/embedded.h"
#include "ossilar/web/html.h"

namespace ossilar::web {
namespace {

using workers::wiki::PageState;

constexpr std::size_t kWholeTree = 120;  // pages
// Of the pages below one page so many are listed around the current one; the rest is counted.
constexpr std::size_t kMostSiblings = 40;
// A tree is as deep as the plan; this only ends a walk in a circle of parents.
constexpr int kDeepestTree = 64;

// The page and those above it.
std::set<std::string> with_ancestors(const Site& site, const std::string& page_id) {
  std::set<std::string> ids;
  const PageState* page = site.page(page_id);
  while (page != nullptr && ids.insert(page->page_id).second) page = site.page(page->parent);
  return ids;
}

struct TreeContext {
  const Asked& asked;
  const std::string& current;
  std::set<std::string> open;
  bool is_whole;
};

// The title as it stands below that of its parent: of a folder's name, which a page has until it is written,
// the part below the folder.
std::string short_title(const PageState& page, const PageState* above) {
  const std::string prefix = above == nullptr ? "" : above->page_id + "/";
  return above != nullptr && page.title.starts_with(prefix) ? page.title.substr(prefix.size()) : page.title;
}

// A part of `children` around the one that is open.
std::pair<std::size_t, std::size_t> shown_children(const TreeContext& context,
                                                   const std::vector<std::size_t>& children) {
  if (children.size() <= kMostSiblings) return {0, children.size()};
  const auto open = std::find_if(children.begin(), children.end(), [&](std::size_t index) {
    return context.open.count(context.asked.site.pages()[index].page_id) > 0;
  });
  const std::size_t middle = open == children.end() ? 0 : static_cast<std::size_t>(open - children.begin());
  const std::size_t begin =
      std::min(middle - std::min(middle, kMostSiblings / 2), children.size() - kMostSiblings);
  return {begin, begin + kMostSiblings};
}

// Recursion is as deep as the plan's tree, which has a limit here.
std::string tree_html(const TreeContext& context, const std::string& above, int depth) {
  const Site& site = context.asked.site;
  const std::vector<std::size_t>& children = site.children(above);
  if (children.empty() || depth > kDeepestTree) return "";
  const auto [begin, end] = shown_children(context, children);
  std::string html = "<ul>";
  for (std::size_t i = begin; i < end; ++i) {
    const PageState& page = site.pages()[children[i]];
    const bool is_current = page.page_id == context.current;
    const bool is_open = context.is_whole || context.open.count(page.page_id) > 0;
    ctemplate::TemplateDictionary values("tree item");
    values.SetValue("URL", link_to(context.asked, page_address(page.page_id)));
    values.SetValue("TITLE", short_title(page, site.page(above)));
    set_state(values, page.condition);
    if (is_current) values.ShowSection("CURRENT");
    if (page.condition != workers::wiki::PageCondition::ok) values.ShowSection("STATE_MARK");
    if (!is_open && !site.children(page.page_id).empty()) values.ShowSection("MORE");
    html += "<li>" + expanded("tree_item.html", values);
    if (is_open) html += tree_html(context, page.page_id, depth + 1);
    html += "</li>";
  }
  if (end - begin < children.size()) {
    html += "<li class=\"more\"><a href=\"" +
            escaped(link_to(context.asked, above.empty() ? std::string(kHome) : page_address(above))) +
            "\">" + std::to_string(children.size() - (end - begin)) + " more</a></li>";
  }
  return html + "</ul>";
}

void add_contents(ctemplate::TemplateDictionary& values, const std::vector<TocEntry>& contents) {
  if (contents.size() < 2) return;
  for (const char* place : {"CONTENTS", "CONTENTS_INLINE"}) {
    ctemplate::TemplateDictionary* section = values.AddSectionDictionary(place);
    for (const TocEntry& entry : contents) {
      if (entry.level > 3) continue;
      ctemplate::TemplateDictionary* item = section->AddSectionDictionary("ENTRY");
      item->SetValue("URL", "#" + encoded_path(entry.id));
      item->SetValue("TEXT", entry.text);
      item->SetIntValue("LEVEL", entry.level);
    }
  }
}

bool is_shown(const Asked& asked, const std::string& path) {
  const std::set<std::string>* shown = asked.edition.shown_sources;
  return shown == nullptr || shown->count(path) > 0;
}

}  // namespace

std::string link_to(const Asked& asked, const std::string& address) {
  return way_to_root(asked.address) + address;
}

std::string link_to_lines(const Asked& asked, const workers::wiki::Citation& citation) {
  switch (asked.edition.sources) {
    case Sources::embedded:
      return is_shown(asked, citation.path) ? link_to(asked, lines_address(citation)) : "";
    case Sources::linked:
      return asked.edition.forge + encoded_path(citation.path) + "#" +
             lines_fragment(citation.first, citation.last);
    default:
      return "";
  }
}

std::string link_to_source(const Asked& asked, const std::string& path) {
  switch (asked.edition.sources) {
    case Sources::embedded:
      return is_shown(asked, path) ? link_to(asked, source_address(path)) : "";
    case Sources::linked:
      return asked.edition.forge + encoded_path(path);
    default:
      return "";
  }
}

void set_state(ctemplate::TemplateDictionary& values, workers::wiki::PageCondition condition) {
  values.SetValue("STATE", workers::wiki::condition_name(condition));
  values.SetValue("STATE_MEANING", std::string("a page that ") + workers::wiki::condition_meaning(condition));
}

std::string framed(const Asked& asked, const Frame& frame) {
  const Site& site = asked.site;
  ctemplate::TemplateDictionary values("frame");
  values.SetValue("TITLE", frame.title);
  values.SetValue("SITE", site.name());
  values.SetValue("KIND", frame.kind);
  values.SetValue("ROOT", way_to_root(asked.address));
  values.SetValue("PAGE_ID", frame.page_id);
  values.SetValue("MODE", asked.edition.is_live ? "live" : "static");
  for (const auto& [name, address] :
       {std::pair("HOME_URL", std::string(kHome)), std::pair("STATE_URL", std::string(kStatePage)),
        std::pair("SEARCH_URL", std::string(kSearchPage)),
        std::pair("STYLE_URL", std::string("assets/site.css")),
        std::pair("ICON_URL", std::string("assets/icon.svg")),
        std::pair("SCRIPT_URL", std::string("assets/site.js"))})
    values.SetValue(name, link_to(asked, address));
  if (!asked.edition.is_live) values.ShowSection(frame.has_mermaid ? "STATIC_DRAWING" : "STATIC");
  if (!asked.edition.base_url.empty()) {
    values.AddSectionDictionary("CANONICAL")
        ->SetValue("URL", asked.edition.base_url + encoded_path(asked.address));
  }
  // Scripts of others come only with the pages that need them.
  const auto add_library = [&](bool is_needed, const std::string& file) {
    if (is_needed && embedded_file("assets/" + file))
      values.AddSectionDictionary("LIBRARY")->SetValue("URL", link_to(asked, "assets/" + file));
  };
  add_library(frame.has_code, "highlight.js");
  add_library(frame.has_mermaid, "mermaid.js");
  values.SetValue("QUERY", frame.query);
  const bool is_whole = site.pages().size() <= kWholeTree;
  values.SetValue("TREE", tree_html({.asked = asked,
                                     .current = frame.page_id,
                                     .open = with_ancestors(site, frame.page_id),
                                     .is_whole = is_whole},
                                    "", 0));
  values.SetValue("CONTENT", frame.content);
  add_contents(values, frame.contents);
  // Not in an export: every save would change every file.
  if (const auto& write = site.last_write(); write && asked.edition.is_live)
    values.AddSectionDictionary("WRITTEN")->SetValue("TIME", write->last_built_at);
  return expanded("frame.html", values);
}

}  // namespace ossilar::web
