// A list is rendered from the rows, compared with its file, and written only if it differs. Rewriting one
// list of all pages at each save would cost more with every page; patching lines in place could never repair
// a list that fell behind. So a save renders one part (list_parts.h) and leaves the other files alone.
//
// A manifest is also evidence: after a pull, its lines are what proves that a new page file was stored by
// ossilar elsewhere. Rewriting it from rows alone would destroy that proof before the page is adopted. A
// foreign line therefore stays as long as its page waits, and a manifest with such lines is not noted as
// ours, so that news() reports it until the page has been adopted.
//
// Order on disk: lists of parts before the list that names them, and each index before its manifest.
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
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

bool is_manifest(const std::string& name) { return name.ends_with(kManifestEnd); }

// `text` with a backslash before each character that Markdown could read as markup. Titles and summaries are
// plain text, and a bracket in a title would end the link.
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

// Readers open the overview first, then the other pages about the whole repository, then the modules. Within
// a rank the order of the ids stays, which puts a module before the modules inside it.
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

// The nearest page above this one that the list names too, or "". Rows of different plans can form a cycle of
// parents, so the number of steps is limited.
std::string listed_above(const std::string& page_id, const store::StoredRows& rows,
                         const std::set<std::string>& listed) {
  // Deeper than a plan goes.
  constexpr int kMostSteps = 64;
  const Map* row = rows.find(page_id);
  for (int step = 0; step < kMostSteps && row != nullptr; ++step) {
    std::string parent = utils::string_member(*row, "parent_section");
    if (parent.empty() || parent == page_id) break;
    if (listed.count(parent) > 0) return parent;
    row = rows.find(parent);
  }
  return "";
}

struct Place {
  std::string page_id;
  std::size_t depth = 0;
};

// The pages of the part, each right below the page that it is a part of. The order of the ids alone does not
// do that: "src-gen" comes between "src" and "src/core", and a topic may be part of any page.
std::vector<Place> nested(const ListPart& part, const store::StoredRows& rows) {
  const std::vector<std::string> ordered = in_reading_order(part, rows);
  const std::set<std::string> listed(ordered.begin(), ordered.end());
  std::map<std::string, std::vector<std::string>> below;  // "" for those at the top
  for (const std::string& page_id : ordered) below[listed_above(page_id, rows, listed)].push_back(page_id);

  std::vector<Place> places;
  std::set<std::string> placed;
  std::vector<Place> waiting;  // a stack, so that no depth of a plan is a depth of calls
  const auto push = [&](const std::string& above, std::size_t depth) {
    const auto& pages = below[above];
    for (auto page = pages.rbegin(); page != pages.rend(); ++page) waiting.push_back({*page, depth});
  };
  const auto place_all = [&] {
    while (!waiting.empty()) {
      const Place next = std::move(waiting.back());
      waiting.pop_back();
      if (!placed.insert(next.page_id).second) continue;
      places.push_back(next);
      push(next.page_id, next.depth + 1);
    }
  };
  push("", 0);
  place_all();
  for (const std::string& page_id : ordered) {  // those of a cycle, which no page at the top leads to
    waiting.push_back({page_id, 0});
    place_all();
  }
  return places;
}

// A summary is plain text, in which a link to a page is its title in brackets.
std::string without_brackets(const std::string& summary) {
  std::string out = without_citations(summary);
  std::vector<std::size_t> brackets;
  for (const std::string_view label : bracketed(out)) {
    const auto begin = static_cast<std::size_t>(label.data() - out.data());
    brackets.push_back(begin - 1);
    brackets.push_back(begin + label.size());
  }
  for (auto at = brackets.rbegin(); at != brackets.rend(); ++at) out.erase(*at, 1);
  return out;
}

std::string index_line(const Map& row, const std::string& up) {
  std::string line = "- [" + escaped(utils::string_member(row, "title")) + "](" + up +
                     utils::string_member(row, "rel_path") + ")";
  const std::string summary = without_brackets(utils::string_member(row, "summary"));
  if (!summary.empty()) line += ": " + escaped(summary);
  return line + "\n";
}

// The title of a part: "src/core/..." for the prefix "src/core/".
std::string part_title(const std::string& prefix) { return escaped(prefix) + "..."; }

}  // namespace

std::string render_index(const ListPart& part, const store::StoredRows& rows) {
  const bool is_whole = part.prefix.empty();
  const std::string up = is_whole ? "" : "../";
  std::string out = is_whole ? "# Wiki\n\n" : "# " + part_title(part.prefix) + "\n\n";
  out += "<!-- Rebuilt by every save. -->\n\n";
  if (!is_whole) out += "Part of the [wiki](../index.md).\n\n";
  if (part.pages.empty() && part.parts.empty()) return out + "No page has been written yet.\n";
  for (const Place& place : nested(part, rows))
    out.append(2 * place.depth, ' ').append(index_line(*rows.find(place.page_id), up));
  for (const std::string& prefix : part.parts) {
    const std::string file = list_file(prefix, kIndexEnd);
    // Parts lie side by side in `lists/`, so between two of them the link has no folder.
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

// Whether the page has a file that its row does not know. The file came by version control and waits for its
// adoption, or for somebody to resolve a conflict in it. A page without a file does not count here;
// is_awaited() tells whether one has yet to arrive.
bool WikiLists::is_unsettled(const std::string& page_id, const Map* row) const {
  const fs::path file = pages_ / (page_id + ".md");
  if (!utils::is_regular_file(file)) return false;
  if (row == nullptr) return true;
  try {
    const std::string hash = _text_hash(utils::read_text_file_within(pages_, file));
    return utils::string_member(*row, "content_hash") != hash;
  } catch (const utils::Error&) {
    return true;  // an unreadable file is not the row's text, and may become readable again
  }
}

bool WikiLists::is_awaited(const std::string& page_id) const {
  const std::lock_guard lock(mutex_);
  return awaited_.count(pages_ / (page_id + ".md")) > 0;
}

// The manifest as it should be: a line per row, but for a page that waits the line in place. As little as
// possible is parsed: nothing of a file that equals its rows, else the lines that differ, and the whole file
// only when one of their pages waits.
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
  // A merge may have left two lines for a page, one of them equal to ours and so not in `others`. Both stay.
  std::optional<ManifestContent> whole;
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

// The manifest is written last, as it vouches for what is done. A file that already reads as it should is not
// written: reading it costs less than a sync.
//
// A manifest that keeps foreign lines is neither noted nor own, so the next adopt_arrivals() looks at it
// again.
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
  // Both lie in one folder, which is then synced once.
  const auto stamps = utils::atomic_write_all((wiki_ / index_name).parent_path(), files);
  if (manifest.has_waiting) return;
  if (is_other) note_own(manifest_name, stamps.back());
  own[manifest_name] = utils::sha256_hex(manifest.text);
}

// Only the part that lists the page is written, if the manifests above it already name the right parts. If
// one does not, the page has divided a part, or a merge or an older division left it wrong; then all are
// written. Their indexes are not compared: both files of a part are written together, and an index that a
// merge broke by itself is found by `ossilar check`.
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

// From the bottom up, so that no list names a file that is not there yet. Files of former parts go last, when
// no list names them any more; one that cannot be removed is ignored here and reported by `ossilar check`.
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
  std::error_code ended;  // also set when a small wiki has no such folder
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
  if (found.empty()) return found;  // a small wiki's: spares the division of all pages
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

// Asked before commands and before each call of a session, so it looks at stamps and reads no file. A
// manifest that was never noted counts if it exists.
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

// A manifest with the text that we wrote says nothing new. It can say something wrong: after a save was cut
// short between rows and lists, it is older than the rows and would take an older page file for a newer one.
ManifestContent WikiLists::read(const Stamps& manifests, const Own& own) const {
  ManifestContent content;
  for (const auto& [name, stamp] : manifests) {
    const std::string text = read(name);
    const auto known = own.find(name);
    if (known == own.end() || known->second != utils::sha256_hex(text)) content.merge(read_manifest(text));
  }
  return content;
}

bool WikiLists::are_own(const Stamps& manifests, const Own& own) const {
  return manifests.size() == own.size() &&
         std::all_of(manifests.begin(), manifests.end(), [&](const auto& manifest) {
           const auto known = own.find(manifest.first);
           return known != own.end() && known->second == utils::sha256_hex(read(manifest.first));
         });
}

ManifestContent WikiLists::read_all() const {
  Stamps all;  // the stamps are not looked at by read()
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
      noted_[name] = stamp;  // a file written since is news, or ours and noted by its write
  }
  awaited_ = awaited;
}

}  // namespace ossilar::workers::wiki
