// All entries are applied first and the whole is checked afterwards. Checked one by one, an entry could not
// name a page below it in the file, two pages could not swap titles, and the order of the file would matter.
#include "ossilar/workers/wiki/plan/plan_entries.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "ossilar/utils/fold.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/plan/glob.h"
#include "ossilar/workers/wiki/plan/plan_names.h"

namespace ossilar::workers::wiki {
namespace {

using utils::ConfigError;
using Positions = std::unordered_map<std::string, std::size_t>;

// How a message names an entry and its key: entries keep no line numbers.
std::string entry_key(const std::string& id, std::string_view key) {
  return "[[page]] \"" + id + "\", " + std::string(key) + ": ";
}

// "guides/error-handling" as "Error handling".
std::string title_from_id(const std::string& id) {
  std::string title = id.substr(id.rfind('/') + 1);
  std::replace_if(
      title.begin(), title.end(), [](char c) { return c == '-' || c == '_'; }, ' ');
  if (title.front() >= 'a' && title.front() <= 'z')
    title.front() = static_cast<char>(title.front() - 'a' + 'A');
  return title;
}

// A page that only the configuration asks for: mostly a subject that no folder shows, so a topic unless the
// entry says otherwise.
PagePlan new_page(const std::string& id) {
  PagePlan page;
  page.page_id = id;
  page.title = title_from_id(id);
  page.importance = "medium";
  page.type = "topic";
  return page;
}

// Sorted, each once: globs may overlap.
std::vector<std::string> matching_files(const std::vector<std::string>& globs,
                                        const source::SourceIndex& index) {
  std::vector<std::string> files;
  for (const std::string& glob : globs) {
    std::vector<std::string> more = Glob(glob).matching_files(index);
    std::move(more.begin(), more.end(), std::back_inserter(files));
  }
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  return files;
}

// What the entry leaves out stays as derived. An empty list or parent is given, not left out: it removes what
// was derived.
void apply(PagePlan& page, const PageEntry& entry, const source::SourceIndex& index) {
  if (entry.title) page.title = *entry.title;
  if (entry.description) page.description = *entry.description;
  if (entry.type) page.type = *entry.type;
  if (entry.importance) page.importance = *entry.importance;
  if (entry.parent) page.parent = *entry.parent;
  if (entry.related) page.related_pages = *entry.related;
  if (entry.sources) page.source_files = matching_files(*entry.sources, index);
  if (!entry.steering.empty()) page.steering = entry.steering;
}

// An unknown id is most often a slip, or a page that the tree no longer suggests; ignored, the entry would
// silently do something else than it says.
void require_known(const PageEntry& entry, std::string_view key, const std::string& id,
                   const Positions& positions) {
  if (positions.count(id) > 0) return;
  throw ConfigError(entry_key(entry.id, key) + "no page \"" + id +
                    "\" is in the plan; name one that `ossilar plan` lists, or add a [[page]] with this id");
}

void require_links(const PageEntry& entry, const Positions& positions) {
  if (entry.parent && !entry.parent->empty()) require_known(entry, "parent", *entry.parent, positions);
  for (const std::string& id : entry.related.value_or(std::vector<std::string>{})) {
    require_known(entry, "related", id, positions);
  }
}

// Follows the parents of every page that has an entry: derived parents make a tree, so a circle leads through
// one of these. `safe` has the pages from which the way up is known to end, so each page is passed once.
// Every parent must be known already.
void require_no_circle(const std::vector<PagePlan>& pages, const Positions& positions,
                       const WikiConfig& config) {
  std::unordered_set<std::size_t> safe;
  for (const PageEntry& entry : config.pages) {
    std::unordered_set<std::size_t> line;  // from this entry's page upward
    for (std::size_t at = positions.at(entry.id); safe.count(at) == 0;) {
      if (!line.insert(at).second) {
        throw ConfigError(entry_key(entry.id, "parent") +
                          "the page would be its own ancestor; give it, or a page above it, another parent");
      }
      if (pages[at].parent.empty()) break;
      at = positions.at(pages[at].parent);
    }
    safe.merge(line);
  }
}

// Pages link to each other by title, compared as CommonMark compares link labels, so a title must be one
// page's alone. Derived titles are already; only entries can clash. Compared when all are set, so two pages
// may swap titles.
void require_own_titles(const std::vector<PagePlan>& pages, const Positions& positions,
                        const WikiConfig& config) {
  std::unordered_map<std::string, std::vector<std::size_t>> by_title;
  for (std::size_t i = 0; i < pages.size(); ++i) by_title[utils::fold_label(pages[i].title)].push_back(i);
  for (const PageEntry& entry : config.pages) {
    const std::size_t own = positions.at(entry.id);
    for (const std::size_t other : by_title.at(utils::fold_label(pages[own].title))) {
      if (other == own) continue;
      throw ConfigError(entry_key(entry.id, "title") + "\"" + pages[own].title +
                        "\" is also the title of the page \"" + pages[other].page_id +
                        "\"; give one of them another title");
    }
  }
}

}  // namespace

std::vector<PagePlan> amend_plan(std::vector<PagePlan> pages, const WikiConfig& config,
                                 const source::SourceIndex& index) {
  Positions positions;
  for (std::size_t i = 0; i < pages.size(); ++i) positions.emplace(pages[i].page_id, i);
  for (const PageEntry& entry : config.pages) {
    const auto [position, added] = positions.emplace(entry.id, pages.size());
    if (added) pages.push_back(new_page(entry.id));
    apply(pages[position->second], entry, index);
  }
  // Only now: an entry may name a page that a later one adds. Links before circles, which follow them without
  // a check, and circles before levels, for which link_pages() relies on there being none.
  for (const PageEntry& entry : config.pages) require_links(entry, positions);
  require_no_circle(pages, positions, config);
  require_own_titles(pages, positions, config);
  link_pages(pages);
  return pages;
}

}  // namespace ossilar::workers::wiki
