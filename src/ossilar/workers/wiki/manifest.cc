#include "ossilar/workers/wiki/manifest.h"

#include <utility>
#include <vector>

#include "ossilar/utils/error.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/page_title.h"

namespace ossilar::workers::wiki {
namespace {

constexpr int kFormat = 1;

// The keys of a row that a clone cannot derive from page and plan alone.
constexpr const char* kRowKeys[] = {
    "title",   "page_type",    "description",  "importance",    "level",         "parent_section", "rel_path",
    "summary", "content_hash", "source_files", "source_hashes", "related_pages", "citations"};

// Link text in a list: brackets and marks of a title stand for themselves.
std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (std::string_view("\\`*_<>[]&").find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

std::string index_line(const Map& row) {
  std::string line = "- [" + escaped(utils::string_member(row, "title")) + "](" +
                     utils::string_member(row, "rel_path") + ")";
  const std::string summary = utils::string_member(row, "summary");
  if (!summary.empty()) line += ": " + escaped(summary);
  return line + "\n";
}

struct Listed {
  std::string page_id;
  std::size_t depth = 0;
};

// The ids of the stored pages in the order of the plan, each below its nearest stored ancestor.
std::vector<Listed> listed_pages(const store::StoredRows& rows, const Plans& plans) {
  std::map<std::string, std::vector<std::string>> below;  // parent to stored pages
  for (std::size_t i = 0; i < plans.size(); ++i) {
    if (rows.find(plans[i].page_id) == nullptr) continue;
    const PagePlan* parent = plans.find(plans[i].parent);
    while (parent != nullptr && rows.find(parent->page_id) == nullptr) parent = plans.find(parent->parent);
    below[parent != nullptr ? parent->page_id : ""].push_back(plans[i].page_id);
  }
  rows.for_each([&](const std::string& page_id, const Map&) {
    if (plans.find(page_id) == nullptr) below[""].push_back(page_id);
  });
  std::vector<Listed> listed;
  std::vector<Listed> pending;
  const auto push_below = [&](const std::string& parent, std::size_t depth) {
    const auto& pages = below[parent];
    for (auto page = pages.rbegin(); page != pages.rend(); ++page) pending.push_back({*page, depth});
  };
  push_below("", 0);
  while (!pending.empty()) {
    listed.push_back(std::move(pending.back()));
    pending.pop_back();
    push_below(listed.back().page_id, listed.back().depth + 1);
  }
  return listed;
}

// Adds the page that `entry` is about; false when it is about none.
bool add_entry(ManifestContent& content, Map entry) {
  const std::string page_id = utils::string_member(entry, "page_id");
  if (!is_page_id(page_id)) return false;
  content.pages.emplace(page_id, std::move(entry));
  return true;
}

}  // namespace

Map manifest_entry(const std::string& page_id, const Map& row) {
  Map page{{"page_id", page_id}};
  for (const char* key : kRowKeys) page[key] = utils::member(row, key);
  if (const auto title = agent_title(&row)) page[AGENT_TITLE_KEY] = *title;
  page[FORMER_TITLES_KEY] = former_titles(&row);
  return page;
}

const Map* ManifestContent::entry_of(const std::string& page_id, const std::string& content_hash) const {
  const Map* entry = nullptr;
  const auto [first, last] = pages.equal_range(page_id);
  for (auto at = first; at != last; ++at) {
    entry = &at->second;
    if (utils::string_member(*entry, "content_hash") == content_hash) break;
  }
  return entry;
}

const WikiFilesRenderer::Rendered& WikiFilesRenderer::rendered(const std::string& page_id,
                                                               const store::StoredRows& rows) {
  Rendered& kept = rendered_[page_id];
  auto row = rows.share(page_id);
  if (kept.row != row) kept = {row, utils::json_text(manifest_entry(page_id, *row)), index_line(*row)};
  return kept;
}

std::string WikiFilesRenderer::manifest(const store::StoredRows& rows, const WikiBuildResult& result,
                                        const std::map<std::string, Map>& waiting) {
  std::string out = "{\n\"format\": " + std::to_string(kFormat);
  out += ",\n\"commit\": " + utils::json_text(result.git_commit);
  out += ",\n\"files_covered\": " + std::to_string(result.files_covered);
  out += ",\n\"lint\": " + utils::json_text(result.lint) + ",\n\"pages\": [";
  const char* separator = "\n";
  const auto add = [&](const std::string& line) {
    out += separator + line;
    separator = ",\n";
  };
  auto waits = waiting.begin();
  rows.for_each([&](const std::string& page_id, const Map&) {
    for (; waits != waiting.end() && waits->first < page_id; ++waits) add(utils::json_text(waits->second));
    add(rendered(page_id, rows).manifest_line);
  });
  for (; waits != waiting.end(); ++waits) add(utils::json_text(waits->second));
  return out + "\n]\n}\n";
}

std::string WikiFilesRenderer::index(const store::StoredRows& rows, const Plans& plans) {
  std::string out = "# Wiki\n\n<!-- Rebuilt by every save. -->\n\n";
  if (rows.empty()) return out + "No page has been written yet.\n";
  for (const Listed& listed : listed_pages(rows, plans)) {
    out += std::string(2 * listed.depth, ' ') + rendered(listed.page_id, rows).index_line;
  }
  return out;
}

ManifestContent parse_manifest(std::string_view text, const std::string& name) {
  Map manifest = utils::parse_json(text, name);
  if (utils::member(manifest, "format") != Map(kFormat)) {
    throw utils::Error(name + ": not a manifest of format " + std::to_string(kFormat) +
                       "; restore it from version control, or let ossilar check --fix write it anew");
  }
  ManifestContent content;
  content.lint = utils::member(manifest, "lint");
  content.commit = utils::string_member(manifest, "commit");
  for (Map& page : manifest["pages"]) {  // moved, as they are many
    const std::string page_id = utils::string_member(page, "page_id");
    if (!add_entry(content, std::move(page)))
      throw utils::Error(name + ": '" + utils::printable(page_id) + "' is no page id");
  }
  return content;
}

ManifestContent salvage_manifest(std::string_view text) {
  ManifestContent content;
  for (std::string_view line : utils::split_lines(text)) {
    if (line.empty() || line.front() != '{') continue;
    if (line.back() == ',') line.remove_suffix(1);
    try {
      add_entry(content, utils::parse_json(line, "a line"));
    } catch (const utils::Error&) {
      continue;  // it was not whole
    }
  }
  return content;
}

}  // namespace ossilar::workers::wiki
