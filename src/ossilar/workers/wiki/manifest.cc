#include "ossilar/workers/wiki/manifest.h"

#include <algorithm>
#include <optional>
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
constexpr std::size_t kMostKept = 256;  // pages, some 1.5 KiB each; with more the lists follow a save anyway

// The keys of a row that a clone cannot derive from page and plan alone.
constexpr const char* kRowKeys[] = {
    "title",   "page_type",    "description",  "importance",    "level",         "parent_section", "rel_path",
    "summary", "content_hash", "source_files", "source_hashes", "related_pages", "citations"};

// Those of them whose value is JSON text in a row.
bool is_json_text(std::string_view key) {
  return key == "source_files" || key == "source_hashes" || key == "related_pages" || key == "citations";
}

std::string manifest_line(const std::string& page_id, const Map& row) {
  std::string line = "{";
  const auto add = [&line](const char* key, const std::string& json) {
    line.append(line.size() == 1 ? "\"" : ", \"").append(key).append("\": ").append(json);
  };
  add("page_id", utils::json_text(page_id));
  for (const char* key : kRowKeys) {
    const Map& value = utils::member(row, key);
    const bool stands_as_it_is = is_json_text(key) && value.is_string();
    add(key, stands_as_it_is ? value.get_ref<const std::string&>() : utils::json_text(value));
  }
  if (const auto title = agent_title(&row)) add(AGENT_TITLE_KEY, utils::json_text(*title));
  add(FORMER_TITLES_KEY, utils::json_text(former_titles(&row)));
  return line + "}";
}

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

// Adds the page that `entry`, the value of `text`, is about; false when it is about none.
bool add_entry(ManifestContent& content, const Map& entry, std::string text) {
  const std::string page_id = utils::string_member(entry, "page_id");
  if (!is_page_id(page_id)) return false;
  content.pages.emplace(page_id, ManifestEntry(entry, std::move(text)));
  return true;
}

ManifestContent content_of(const Map& manifest, const std::string& name) {
  if (utils::member(manifest, "format") != Map(kFormat)) {
    throw utils::Error(name + ": not a manifest of format " + std::to_string(kFormat) +
                       "; restore it from version control, or let ossilar check --fix write it anew");
  }
  ManifestContent content;
  content.lint = utils::member(manifest, "lint");
  content.commit = utils::string_member(manifest, "commit");
  for (const Map& page : utils::member(manifest, "pages")) {
    if (!add_entry(content, page, utils::json_text(page))) {
      throw utils::Error(name + ": '" + utils::printable(utils::string_member(page, "page_id")) +
                         "' is no page id");
    }
  }
  return content;
}

// A manifest as it is written here: its entries, one a line, and the text around them.
struct EntryLines {
  std::vector<std::string_view> entries;
  std::string around;
};

std::optional<EntryLines> entry_lines(std::string_view text) {
  static constexpr std::string_view kBefore = "\"pages\": [\n";
  static constexpr std::string_view kAfter = "]\n}\n";
  const std::size_t first = text.find(kBefore);
  if (first == text.npos) return std::nullopt;
  std::string_view left = text.substr(first + kBefore.size());
  EntryLines lines;
  while (!left.empty() && left.front() == '{') {
    std::string_view line = left.substr(0, left.find('\n'));
    left.remove_prefix(std::min(line.size() + 1, left.size()));
    const bool is_last = left == kAfter;
    if (!is_last && line.back() != ',') return std::nullopt;
    if (!is_last) line.remove_suffix(1);
    lines.entries.push_back(line);
  }
  if (left != kAfter) return std::nullopt;
  lines.around = std::string(text.substr(0, first + kBefore.size())).append(left);
  return lines;
}

// None for a manifest of another form, or one with a fault, which reading it whole tells.
std::optional<ManifestContent> read_lines(std::string_view text, const std::string& name) {
  const auto lines = entry_lines(text);
  if (!lines) return std::nullopt;
  try {
    ManifestContent content = content_of(utils::parse_json(lines->around, name), name);
    if (!content.pages.empty()) return std::nullopt;
    for (const std::string_view line : lines->entries) {
      if (!add_entry(content, utils::parse_json(line, name), std::string(line))) return std::nullopt;
    }
    return content;
  } catch (const utils::Error&) {
    return std::nullopt;
  }
}

}  // namespace

Map manifest_entry(const std::string& page_id, const Map& row) {
  return utils::parse_json(manifest_line(page_id, row), page_id);
}

ManifestEntry::ManifestEntry(const Map& entry, std::string text)
    : content_hash_(utils::string_member(entry, "content_hash")), text_(std::move(text)) {}

Map ManifestEntry::value() const { return utils::parse_json(text_, "a manifest's entry"); }

const ManifestEntry* ManifestContent::entry_of(const std::string& page_id,
                                               const std::string& content_hash) const {
  const ManifestEntry* entry = nullptr;
  const auto [first, last] = pages.equal_range(page_id);
  for (auto at = first; at != last; ++at) {
    entry = &at->second;
    if (entry->content_hash() == content_hash) break;
  }
  return entry;
}

bool ManifestContent::describes(const std::string& page_id, const std::string& content_hash) const {
  const ManifestEntry* entry = entry_of(page_id, content_hash);
  return entry != nullptr && entry->content_hash() == content_hash;
}

const WikiFilesRenderer::Rendered& WikiFilesRenderer::rendered(const std::string& page_id,
                                                               const store::StoredRows& rows) {
  const auto kept = kept_.find(page_id);
  Rendered& place = kept != kept_.end() ? kept->second : kept_.size() < kMostKept ? kept_[page_id] : last_;
  auto row = rows.share(page_id);
  if (place.row != row) place = {row, manifest_line(page_id, *row), index_line(*row)};
  return place;
}

std::string WikiFilesRenderer::manifest(const store::StoredRows& rows, const WikiBuildResult& result,
                                        const std::map<std::string, Map>& waiting) {
  std::string out = "{\n\"format\": " + std::to_string(kFormat);
  out += ",\n\"commit\": " + utils::json_text(result.git_commit);
  out += ",\n\"files_covered\": " + std::to_string(result.files_covered);
  out += ",\n\"lint\": " + utils::json_text(result.lint) + ",\n\"pages\": [";
  const char* separator = "\n";
  const auto add = [&](const std::string& line) {
    out.append(separator).append(line);
    separator = ",\n";
  };
  auto waits = waiting.begin();
  rows.for_each([&](const std::string& page_id, const Map&) {
    for (; waits != waiting.end() && waits->first < page_id; ++waits) add(utils::json_text(waits->second));
    add(rendered(page_id, rows).manifest_line);
  });
  for (; waits != waiting.end(); ++waits) add(utils::json_text(waits->second));
  out += "\n]\n}\n";
  return out;
}

std::string WikiFilesRenderer::index(const store::StoredRows& rows, const Plans& plans) {
  std::string out = "# Wiki\n\n<!-- Rebuilt by every save. -->\n\n";
  if (rows.empty()) return out + "No page has been written yet.\n";
  for (const Listed& listed : listed_pages(rows, plans)) {
    out.append(2 * listed.depth, ' ').append(rendered(listed.page_id, rows).index_line);
  }
  return out;
}

ManifestContent parse_manifest(std::string_view text, const std::string& name) {
  if (auto content = read_lines(text, name)) return *std::move(content);
  return content_of(utils::parse_json(text, name), name);
}

ManifestContent salvage_manifest(std::string_view text) {
  ManifestContent content;
  for (std::string_view line : utils::split_lines(text)) {
    if (line.empty() || line.front() != '{') continue;
    if (line.back() == ',') line.remove_suffix(1);
    try {
      add_entry(content, utils::parse_json(line, "a line"), std::string(line));
    } catch (const utils::Error&) {
      continue;  // it was not whole
    }
  }
  return content;
}

}  // namespace ossilar::workers::wiki
