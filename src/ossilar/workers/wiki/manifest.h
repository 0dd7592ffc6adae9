// The wiki's generated files beside its pages: `index.md` for readers, `manifest.json` for programs and for
// adopting the pages in another clone.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Renders both files from the stored rows. What a page contributes is kept and made again only when its row
// changed, so that a save costs one page's rendering; of a large wiki this holds for the first pages, as the
// memory would be that of its rows once more.
//
// Thread-safety: none; used by the holder of the write lock.
class WikiFilesRenderer {
 public:
  // One page a line, so that saves of different pages merge. `waiting` are entries of pages without a row, by
  // page id.
  std::string manifest(const store::StoredRows& rows, const WikiBuildResult& result,
                       const std::map<std::string, Map>& waiting);
  // The pages in the order of the plan, nested by parent; pages that no plan has come last.
  std::string index(const store::StoredRows& rows, const Plans& plans);

 private:
  struct Rendered {
    std::shared_ptr<const Map> row;
    std::string manifest_line;
    std::string index_line;
  };
  const Rendered& rendered(const std::string& page_id, const store::StoredRows& rows);
  std::map<std::string, Rendered> kept_;
  Rendered last_;  // of those that are not kept
};

// What a manifest says of a page: an object with the keys that WikiFilesRenderer::manifest() writes.
Map manifest_entry(const std::string& page_id, const Map& row);

// What a manifest says of a page, as text: as values the entries would be many times as large as the
// manifest.
class ManifestEntry {
 public:
  // `entry` is the value of the JSON text `text`.
  ManifestEntry(const Map& entry, std::string text);
  // See manifest_entry().
  Map value() const;
  const std::string& content_hash() const { return content_hash_; }

 private:
  std::string content_hash_;
  std::string text_;
};

struct ManifestContent {
  std::multimap<std::string, ManifestEntry> pages;  // by page id; a salvaged manifest may have several of one
  std::string commit;
  Map lint;

  // The entry of the page that describes a file with this hash, or else the last one, or null.
  const ManifestEntry* entry_of(const std::string& page_id, const std::string& content_hash) const;
  // Whether an entry of the page describes a file with this hash.
  bool describes(const std::string& page_id, const std::string& content_hash) const;
};

// Reads a manifest. Throws utils::Error, naming `name`, for text that is no manifest of a format known here.
ManifestContent parse_manifest(std::string_view text, const std::string& name);

// What is left of a manifest that a merge or a hand has broken: the entries in whole lines.
ManifestContent salvage_manifest(std::string_view text);

}  // namespace ossilar::workers::wiki
