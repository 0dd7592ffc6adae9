#include "ossilar/workers/wiki/pages/list_files.h"

#include <algorithm>
#include <optional>
#include <set>
#include <system_error>
#include <tuple>
#include <utility>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

bool is_manifest(const std::string& name) { return name.ends_with(kManifestEnd); }

// Link text in a list: brackets and marks of a title stand for themselves.
std::string escaped(const std::string& text) {
  static constexpr std::string_view kMarks = "\\`*_<>[]&";
  std::string out;
  std::size_t done = 0;
  for (std::size_t at = text.find_first_of(kMarks); at != text.npos;
       at = text.find_first_of(kMarks, at + 1)) {
    out.append(text, done, at - done) += '\\';
    done = at;
  }
  return out.append(text, done);
}

// The overview is what a reader opens first, then what is about the whole repository, then the modules, where
// the order of the ids puts a module before its parts.
int rank_of(const Map& row) {
  const std::string type = utils::string_member(row, "page_type");
  if (type == "overview") return 0;
  if (type == "architecture") return 1;
  return utils::member(row, "level") == Map(0) ? 2 : 3;
}

std::vector<std::string> in_reading_order(const ListPart& part, const store::StoredRows& rows) {
  std::vector<std::pair<int, const std::string*>> ranked;
  for (const std::string& page_id : part.pages) ranked.emplace_back(rank_of(*rows.find(page_id)), &page_id);
  std::stable_sort(ranked.begin(), ranked.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> pages;
  pages.reserve(ranked.size());
  for (const auto& [rank, page_id] : ranked) pages.push_back(*page_id);
  return pages;
}

// How many of the listed pages the page is a part of. Plans have no circle; a row may be of an older plan, so
// the way up is bounded.
std::size_t depth_of(const std::string& page_id, const store::StoredRows& rows,
                     const std::set<std::string>& listed) {
  constexpr int kMostSteps = 64;
  std::size_t depth = 0;
  const Map* row = rows.find(page_id);
  for (int step = 0; step < kMostSteps && row != nullptr; ++step) {
    const std::string parent = utils::string_member(*row, "parent_section");
    if (parent.empty()) break;
    depth += listed.count(parent);
    row = rows.find(parent);
  }
  return depth;
}

std::string index_line(const Map& row, const std::string& up) {
  std::string line = "- [" + escaped(utils::string_member(row, "title")) + "](" + up +
                     utils::string_member(row, "rel_path") + ")";
  const std::string summary = utils::string_member(row, "summary");
  if (!summary.empty()) line += ": " + escaped(summary);
  return line + "\n";
}

// A part as readers see it: "src/core/..." of the prefix "src/core/".
std::string part_title(const std::string& prefix) { return escaped(prefix) + "..."; }

}  // namespace

std::string render_index(const ListPart& part, const store::StoredRows& rows) {
  const bool is_whole = part.prefix.empty();
  const std::string up = is_whole ? "" : "../";
  std::string out = is_whole ? "# Wiki\n\n" : "# " + part_title(part.prefix) + "\n\n";
  out += "<!-- Rebuilt by every save. -->\n\n";
  if (!is_whole) out += "Part of the [wiki](../index.md).\n\n";
  if (part.pages.empty() && part.parts.empty()) return out + "No page has been written yet.\n";
  const std::set<std::string> listed(part.pages.begin(), part.pages.end());
  for (const std::string& page_id : in_reading_order(part, rows)) {
    out.append(2 * depth_of(page_id, rows, listed), ' ').append(index_line(*rows.find(page_id), up));
  }
  for (const std::string& prefix : part.parts) {
    const std::string file = list_file(prefix, kIndexEnd);
    out += "- [" + part_title(prefix) + "](" + (is_whole ? file : file.substr(file.find('/') + 1)) + ")\n";
  }
  return out;
}

WikiLists::WikiLists(fs::path wiki, fs::path pages) : wiki_(std::move(wiki)), pages_(std::move(pages)) {}

std::string WikiLists::read(const std::string& name) const {
  const fs::path file = wiki_ / name;
  if (!utils::is_regular_file(file)) return "";
  return utils::normalise_line_ends(utils::read_file_within(wiki_, file));
}

// Whether the page's file is another than its row knows: it came by version control and waits for its
// adoption, to which a line of the manifest is the proof, or it waits for a hand that resolves a conflict.
bool WikiLists::is_unsettled(const std::string& page_id, const Map* row) const {
  const fs::path file = pages_ / (page_id + ".md");
  if (!utils::is_regular_file(file)) return false;
  if (row == nullptr) return true;
  try {
    const std::string hash = _text_hash(utils::read_text_file_within(pages_, file));
    return utils::string_member(*row, "content_hash") != hash;
  } catch (const utils::Error&) {
    return true;  // what cannot be read is not what the row knows
  }
}

bool WikiLists::is_awaited(const std::string& page_id) const {
  const std::lock_guard lock(mutex_);
  return awaited_.count(pages_ / (page_id + ".md")) > 0;
}

// Of the manifest in place, a line that is not the rows' may be right all the same, while its page is not
// settled. Only such lines are parsed.
WikiLists::Manifest WikiLists::manifest_of(const ListPart& part, const store::StoredRows& rows,
                                           const Map& lint, const Waiting& waiting) const {
  ManifestLines lines = manifest_lines(part, rows);
  Manifest manifest{.text = render_manifest(part, lines, lint),
                    .in_place = read(list_file(part.prefix, kManifestEnd)),
                    .has_waiting = false};
  if (manifest.in_place == manifest.text) return manifest;
  std::set<std::string_view> ours;
  for (const std::string_view line : utils::split_lines(manifest.text)) ours.insert(line);
  std::string others;
  for (const std::string_view line : utils::split_lines(manifest.in_place)) {
    if (ours.count(line) == 0) others.append(line).append("\n");
  }
  std::optional<ManifestContent> whole;  // with the lines that are ours, too
  for (const auto& [page_id, hashes] : read_manifest(others).described) {
    if (page_id == waiting.but) continue;
    const bool waits = waiting.awaited && is_awaited(page_id);
    if (!waits && !is_unsettled(page_id, rows.find(page_id))) continue;
    if (!whole) whole = read_manifest(manifest.in_place);
    lines[page_id] = whole->lines[page_id];
    manifest.has_waiting = true;
  }
  if (manifest.has_waiting) manifest.text = render_manifest(part, lines, lint);
  return manifest;
}

// The manifest last: it vouches for what is done. A file that reads as it should is left alone: a sync costs
// more than the look.
void WikiLists::write_part(const ListPart& part, const store::StoredRows& rows, const Map& lint,
                           const std::string& saved, Own& own) {
  const fs::path index_name = list_file(part.prefix, kIndexEnd);
  const fs::path manifest_name = list_file(part.prefix, kManifestEnd);
  const std::string index = render_index(part, rows);
  const Manifest manifest = manifest_of(part, rows, lint, {.awaited = true, .but = saved});
  std::vector<utils::NamedText> files;
  if (read(index_name) != index) files.push_back({index_name.filename(), index});
  const bool is_other = manifest.in_place != manifest.text;
  if (is_other) files.push_back({manifest_name.filename(), manifest.text});
  const auto stamps = utils::atomic_write_all((wiki_ / index_name).parent_path(), files);
  if (manifest.has_waiting) return;
  if (is_other) note_own(manifest_name, stamps.back());
  own[manifest_name] = utils::sha256_hex(manifest.text);
}

WikiLists::Own WikiLists::write_page(const store::StoredRows& rows, const Map& lint,
                                     const std::string& page_id) {
  const std::vector<ListPart> way = parts_to(rows, page_id);
  const bool is_divided_as_before = std::all_of(way.begin(), way.end() - 1, [&](const ListPart& part) {
    return read(list_file(part.prefix, kManifestEnd)) ==
           manifest_of(part, rows, lint, {.awaited = true, .but = page_id}).text;
  });
  if (!is_divided_as_before) return write_all(rows, lint);
  Own own;
  write_part(way.back(), rows, lint, page_id, own);
  return own;
}

// From the bottom up, so that no list names one that is not there.
WikiLists::Own WikiLists::write_all(const store::StoredRows& rows, const Map& lint) {
  const std::vector<ListPart> parts = all_parts(rows);
  Own own;
  std::for_each(parts.rbegin(), parts.rend(),
                [&](const ListPart& part) { write_part(part, rows, lint, "", own); });
  for (const std::string& stray : strays(rows)) {
    std::error_code gone;
    fs::remove(wiki_ / stray, gone);
  }
  return own;
}

std::vector<ListFile> WikiLists::expected(const store::StoredRows& rows, const Map& lint) const {
  std::vector<ListFile> files;
  for (const ListPart& part : all_parts(rows)) {
    files.push_back({list_file(part.prefix, kIndexEnd), render_index(part, rows)});
    files.push_back({list_file(part.prefix, kManifestEnd), manifest_of(part, rows, lint, {}).text});
  }
  return files;
}

std::vector<std::string> WikiLists::files_in_lists() const {
  std::vector<std::string> names;
  std::error_code ended;
  for (fs::directory_iterator at(wiki_ / kListsFolder, ended), end; !ended && at != end;
       at.increment(ended)) {
    const fs::path name = at->path().filename();
    const bool is_list = name.extension() == kIndexEnd || name.extension() == kManifestEnd;
    if (is_list && at->symlink_status().type() == fs::file_type::regular)
      names.push_back(std::string(kListsFolder) + "/" + name.string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> WikiLists::strays(const store::StoredRows& rows) const {
  std::vector<std::string> found = files_in_lists();
  if (found.empty()) return found;
  std::set<std::string> wanted;
  for (const ListPart& part : all_parts(rows)) {
    for (const char* end : {kIndexEnd, kManifestEnd}) wanted.insert(list_file(part.prefix, end));
  }
  std::erase_if(found, [&](const std::string& name) { return wanted.count(name) > 0; });
  return found;
}

Map WikiLists::lint() const { return lint_of(read(list_file("", kManifestEnd))); }

std::vector<std::string> WikiLists::manifests() const {
  std::vector<std::string> names = files_in_lists();
  std::erase_if(names, [](const std::string& name) { return !is_manifest(name); });
  names.push_back(list_file("", kManifestEnd));
  return names;
}

WikiLists::Stamps WikiLists::news() const {
  const std::vector<std::string> names = manifests();
  Stamps changed;
  const std::lock_guard lock(mutex_);
  const bool has_come = std::any_of(awaited_.begin(), awaited_.end(), [](const auto& page) {
    return utils::stamp_of(page.first) != page.second;
  });
  for (const std::string& name : names) {
    const utils::FileStamp stamp = utils::stamp_of(wiki_ / name);
    const auto noted = noted_.find(name);
    if (has_come || stamp != (noted == noted_.end() ? utils::FileStamp{} : noted->second))
      changed.emplace(name, stamp);
  }
  return changed;
}

ManifestContent WikiLists::read(const Stamps& manifests, const Own& own) const {
  ManifestContent content;
  for (const auto& [name, stamp] : manifests) {
    const std::string text = read(name);
    const auto known = own.find(name);
    if (known == own.end() || known->second != utils::sha256_hex(text)) content.merge(read_manifest(text));
  }
  return content;
}

ManifestContent WikiLists::read_all() const {
  Stamps all;
  for (const std::string& name : manifests()) all[name] = {};
  return read(all, {});
}

void WikiLists::note_own(const std::string& name, const utils::FileStamp& stamp) {
  const std::lock_guard lock(mutex_);
  noted_[name] = stamp;
}

void WikiLists::note(const Stamps& manifests, const PageStamps& awaited) {
  const std::lock_guard lock(mutex_);
  for (const auto& [name, stamp] : manifests) {
    if (utils::stamp_of(wiki_ / name) == stamp)
      noted_[name] = stamp;  // else it was written since, by us perhaps
  }
  awaited_ = awaited;
}

}  // namespace ossilar::workers::wiki
