// The wiki described for programs, `manifest.json`, and which page files it vouches for.
//
//   {
//   "format": 2
//   ,"pages/alpha.md": {"content_hash": "9f86d0...", "title": "Alpha", ...}
//   ,"pages/beta.md": {"content_hash": "60303a...", "title": "Beta", ...}
//   }
//
// Each entry is one line that looks the same wherever it stands, its comma at the front. So git can merge
// entries of different pages, and a manifest whose lines were merged without regard to JSON can still be
// read. Everything in it follows from the pages, except for a lint summary by another program, which is
// passed on as it is.
//
// list_files.cc renders and reads manifests; check/arrivals.cc and check/adoption.cc ask which page files
// they describe. Pure functions and values: any thread may call. Reading never fails, as the text may be
// anything; a line that cannot be read is skipped.
#pragma once

#include <array>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "ossilar/store/repository.h"
#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/pages/list_parts.h"

namespace ossilar::workers::wiki {

// The formats that are read; the last is the one that is written.
inline constexpr std::array<int, 2> kManifestFormats{1, 2};

// Page id to the manifest's line about it, line feed included.
using ManifestLines = std::map<std::string, std::string>;

// The lines for the pages that the part lists itself. Each must have a row.
ManifestLines manifest_lines(const ListPart& part, const store::StoredRows& rows);

// The text of a part's manifest: `lint` if there is one and the part is the whole wiki, `lines` in the order
// of their ids, then a line for each part below.
std::string render_manifest(const ListPart& part, const ManifestLines& lines, const Map& lint);

// What a manifest says, or several together, however merges have left their lines.
struct ManifestContent {
  // By page id, the hashes of the texts that it describes; a merged manifest may describe several of one.
  std::map<std::string, std::set<std::string>> described;
  ManifestLines lines;  // in today's form; of a page with several, all of them in one text
  Map lint;             // null when there is none
  // Entries of format 1, by page id. They hold what a page's own record holds today. The entry of a page that
  // could not be migrated yet is kept as a line of a manifest of format 2.
  std::multimap<std::string, Map> former_entries;

  // Whether it vouches for the page file with this SHA-256.
  bool describes(const std::string& page_id, const std::string& content_hash) const;
  // The page's entry of format 1: the one that describes this text, else the last; null if there is none.
  // Valid as long as this object is unchanged.
  const Map* former_entry(const std::string& page_id, const std::string& content_hash) const;
  // Adds what another manifest says. For a page in both, `described` keeps the hashes of both, `lines` those
  // of `other` only.
  void merge(ManifestContent other);
};
// Reads a manifest of either format, whole or line by line.
ManifestContent read_manifest(std::string_view text);

// Only the lint summary, without reading the entries where it can; null if there is none.
Map lint_of(std::string_view text);

}  // namespace ossilar::workers::wiki
