// The wiki described for programs, `manifest.json`, and which page files it vouches for.
//
//   {
//   "format": 2
//   ,"pages/alpha.md": {"content_hash": "9f86d0...", "title": "Alpha", ...}
//   ,"pages/beta.md": {"content_hash": "60303a...", "title": "Beta", ...}
//   }
//
// An entry is a line that looks the same wherever it stands, so that git merges entries of different pages,
// and a manifest whose lines were merged without regard to JSON is read all the same. It holds only what
// follows from the pages, but for the lint summary of a batch build, which is passed on as it is.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>

#include "ossilar/store/repository.h"
#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/pages/list_parts.h"

namespace ossilar::workers::wiki {

// Lines by the page id that they are about.
using ManifestLines = std::map<std::string, std::string>;

// What the rows of a part's pages make of its manifest.
ManifestLines manifest_lines(const ListPart& part, const store::StoredRows& rows);

// The manifest of a part with these lines.
std::string render_manifest(const ListPart& part, const ManifestLines& lines, const Map& lint);

// What a manifest says, whatever became of its lines.
struct ManifestContent {
  // By page id, the hashes of the texts that it describes; a merged manifest may describe several of one.
  std::map<std::string, std::set<std::string>> described;
  ManifestLines lines;  // as render_manifest() writes them; of several of a page all
  Map lint;
  // The entries of format 1, which hold what a page's record holds today. One whose page could not be brought
  // forward yet stands in a manifest of today as a line like the others.
  std::multimap<std::string, Map> former_entries;

  bool describes(const std::string& page_id, const std::string& content_hash) const;
  // The entry of format 1 that describes this text, or else the last one of the page, or null.
  const Map* former_entry(const std::string& page_id, const std::string& content_hash) const;
  void merge(ManifestContent other);
};
ManifestContent read_manifest(std::string_view text);

// The lint summary alone; null when there is none.
Map lint_of(std::string_view text);

}  // namespace ossilar::workers::wiki
