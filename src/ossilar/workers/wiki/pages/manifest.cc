// A manifest is valid JSON as it is written, but it is not parsed as one document. git's union merge can
// leave two lines about one page, of which a JSON object keeps one, and a conflict leaves no JSON at all.
// Either way the hash of the page file that came by the merge could be lost, and the page would not be
// adopted. So text in our own layout is parsed line by line. Text in any other layout is tried as a whole
// first: it is format 1, or a program laid it out anew.
//
// Every way of reading ends in take_entries(), which brings both formats into the same form.
#include "ossilar/workers/wiki/pages/manifest.h"

#include <iterator>
#include <optional>
#include <utility>

#include "ossilar/utils/error.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/config.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::string_view kManifestBegin = "{\n\"format\": 2\n";
static_assert(kManifestBegin[kManifestBegin.size() - 2] == '0' + kManifestFormats.back());
constexpr const char* kLintKey = "lint";
constexpr const char* kHashKey = "content_hash";
constexpr const char* kFormerIdKey = "page_id";  // which only the entries of format 1 have
constexpr std::string_view kPagesStart = "pages/";
constexpr std::string_view kPagesEnd = ".md";

// The fields of an entry in their order, with the row's key for each. The order is part of the format:
// another one would change every line in every clone.
struct Field {
  const char* name;
  const char* row_key;
  bool is_json_text = false;  // the row holds the value as JSON text already
};
constexpr Field kFields[] = {{kHashKey, kHashKey},   {"title", "title"},
                             {"type", "page_type"},  {"importance", "importance"},
                             {"level", "level"},     {"parent", "parent_section"},
                             {"summary", "summary"}, {"sources", "source_files", true}};

std::string entry_line(const std::string& file, const Map& entry) {
  return "," + utils::json_text(file) + ": " + utils::json_text(entry) + "\n";
}

// Put together as text instead of building a JSON object: a save renders the lines of all pages in its part.
// A page id needs no escaping.
std::string manifest_line(const std::string& page_id, const Map& row) {
  std::string line = ",\"" + std::string(kPagesStart).append(page_id).append(kPagesEnd) + "\": {";
  const char* separator = "\"";
  for (const Field& field : kFields) {
    const Map& value = utils::member(row, field.row_key);
    line.append(separator).append(field.name).append("\": ");
    line += field.is_json_text && value.is_string() ? value.get_ref<const std::string&>()
                                                    : utils::json_text(value);
    separator = ", \"";
  }
  return line + "}\n";
}

// The page that a key of the manifest is about; none for other keys. The id comes from a file that anybody
// may have written and becomes a path, so `pages/../x.md` must not pass.
std::optional<std::string> page_of(std::string_view key) {
  if (!key.starts_with(kPagesStart) || !key.ends_with(kPagesEnd)) return std::nullopt;
  key.remove_prefix(kPagesStart.size());
  key.remove_suffix(kPagesEnd.size());
  return is_page_id(key) ? std::optional<std::string>(key) : std::nullopt;
}

// Takes what `object` says, which is a manifest of format 2 or one entry of it.
void take_entries(ManifestContent& content, const Map& object) {
  for (const auto& [key, value] : object.items()) {
    if (key == kLintKey) content.lint = value;
    const auto page_id = page_of(key);
    if (!page_id || !value.is_object()) continue;
    content.described[*page_id].insert(utils::string_member(value, kHashKey));
    content.lines[*page_id] += entry_line(key, value);
    if (value.contains(kFormerIdKey)) content.former_entries.emplace(*page_id, value);
  }
}

// Format 1 has the page id inside the entry and not as its key.
void take_former_entry(ManifestContent& content, const Map& entry) {
  const std::string page_id = utils::string_member(entry, kFormerIdKey);
  if (!is_page_id(page_id)) return;
  take_entries(content, Map{{std::string(kPagesStart).append(page_id).append(kPagesEnd), entry}});
}

// False for text in our own layout, where a merge may have left two lines for a page of which JSON would keep
// one, and for text that is no JSON, as after a conflict. Nothing has been taken then.
bool take_whole(ManifestContent& content, std::string_view text) {
  if (text.starts_with(kManifestBegin)) return false;
  try {
    const Map manifest = utils::parse_json(text, "manifest.json");
    take_entries(content, manifest);
    for (const Map& entry : utils::member(manifest, "pages")) take_former_entry(content, entry);
    return true;
  } catch (const utils::Error&) {
    return false;
  }
}

// Takes one line of a manifest of either format. Anything else is skipped: frame, conflict marks, a line that
// was cut. In format 1 the comma stands at the end, and the last entry has none.
void take_line(ManifestContent& content, std::string_view line) {
  line = utils::strip(line);
  const bool is_entry = line.starts_with(",\"");
  const bool is_former = line.starts_with("{\"page_id\"");
  if (!is_entry && !is_former) return;
  if (is_former && line.ends_with(",")) line.remove_suffix(1);
  try {
    if (is_former) return take_former_entry(content, utils::parse_json(line, "a line of a manifest"));
    take_entries(content, utils::parse_json("{" + std::string(line.substr(1)) + "}", "a line of a manifest"));
  } catch (const utils::Error&) {
    return;
  }
}

}  // namespace

ManifestLines manifest_lines(const ListPart& part, const store::StoredRows& rows) {
  ManifestLines lines;
  for (const std::string& page_id : part.pages)
    lines.emplace(page_id, manifest_line(page_id, *rows.find(page_id)));
  return lines;
}

std::string render_manifest(const ListPart& part, const ManifestLines& lines, const Map& lint) {
  std::string out(kManifestBegin);
  if (part.prefix.empty() && !lint.is_null()) out += entry_line(kLintKey, lint);
  for (const auto& [page_id, line] : lines) out += line;
  for (const std::string& prefix : part.parts)
    out += entry_line(list_file(prefix, kManifestEnd), Map{{"pages", prefix}});
  return out + "}\n";
}

// Every save asks for it, so a manifest of ours is not read whole: the summary is written as its first entry.
// One that a merge moved further down is taken for absent.
Map lint_of(std::string_view text) {
  if (text.starts_with(kManifestBegin)) {
    text.remove_prefix(kManifestBegin.size());
    if (!text.starts_with(std::string(",\"") + kLintKey)) return {};
    text = text.substr(0, text.find('\n'));
    ManifestContent content;
    take_line(content, text);
    return content.lint;
  }
  return read_manifest(text).lint;
}

bool ManifestContent::describes(const std::string& page_id, const std::string& content_hash) const {
  const auto found = described.find(page_id);
  return found != described.end() && found->second.count(content_hash) > 0;
}

const Map* ManifestContent::former_entry(const std::string& page_id, const std::string& content_hash) const {
  const Map* entry = nullptr;
  const auto [first, last] = former_entries.equal_range(page_id);
  for (auto at = first; at != last; ++at) {
    entry = &at->second;
    if (utils::string_member(*entry, kHashKey) == content_hash) break;
  }
  return entry;
}

void ManifestContent::merge(ManifestContent other) {
  for (auto& [page_id, hashes] : other.described) described[page_id].merge(hashes);
  for (auto& [page_id, line] : other.lines) lines[page_id] = std::move(line);
  former_entries.insert(std::make_move_iterator(other.former_entries.begin()),
                        std::make_move_iterator(other.former_entries.end()));
  if (!other.lint.is_null()) lint = std::move(other.lint);
}

ManifestContent read_manifest(std::string_view text) {
  ManifestContent content;
  if (take_whole(content, text)) return content;
  for (const std::string_view line : utils::split_lines(text)) take_line(content, line);
  return content;
}

}  // namespace ossilar::workers::wiki
