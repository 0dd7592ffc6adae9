// Making rows for page files that have none, or whose row is about another text: those of a clone, of a
// branch that git switched to, of a hand, of a save that was cut short.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/manifest.h"
#include "ossilar/workers/wiki/orchestrator.h"

namespace ossilar::workers::wiki {

// The write lock is held for its whole life. No page file is changed.
class Adoption {
 public:
  Adoption(WikiGenerator& wiki, ManifestContent manifest, std::shared_ptr<const PlannedWiki> planned);

  // Adopts every page file that has no row.
  AdoptionReport run();

  // Adopts the pages that arrived whole with the manifest.
  AdoptionReport run_described();

  // Makes row and chunks those of `text`, the page file's. What it does not say is taken from the manifest's
  // entry for this text, or from the former row, or from any entry, or from the plan. The page's digest waits
  // for store_digests().
  void adopt_text(const std::string& page_id, const std::string& text);

  // The page's digest by its text; it waits for store_digests(). A text that was `changed_here`, or takes the
  // place of another, makes the pages above it stale, but for those that arrive whole with it.
  void settle_digest(const std::string& page_id, const std::string& text, const std::string& title,
                     bool changed_here);

  // Whether the manifest describes this very text: then it came with the wiki, whole, from where it was
  // saved.
  bool is_described(const std::string& page_id, const std::string& text) const;

  // Stores the digests that wait, with the stale marks that they cause.
  void store_digests();

  // The model of rows that were made here.
  static constexpr const char* kModel = "adopted";

 private:
  class Batches;
  void adopt_file(const std::filesystem::path& file, const std::string& page_id);
  store::PageFields fields_of(const std::string& page_id, const std::string& text, const std::string& title,
                              const Map* entry, FinalizedPage page);

  Brackets brackets_of(const std::string& page_id, const std::string& authored) const;

  WikiGenerator& wiki_;
  const ManifestContent manifest_;
  std::shared_ptr<const PlannedWiki> planned_;
  StringSet changed_;
  StringSet arrived_;
  AdoptionReport report_;
};

// The manifest of the wiki at `wiki_dir`; empty when there is none.
ManifestContent load_manifest(const std::filesystem::path& wiki_dir);

// What a manifest tells of pages beyond their rows.
struct Arrivals {
  std::vector<std::string> whole;  // whose file is what the manifest describes
  // Files that are something else: of a checkout that is still at work, perhaps.
  std::map<std::filesystem::path, utils::FileStamp> awaited;
};
Arrivals arrivals_of(const ManifestContent& manifest, const store::StoredRows& rows,
                     const std::filesystem::path& pages);

// The entries of pages that have no row and something in their file's place, by page id: nothing else knows
// what they say.
std::map<std::string, Map> waiting_entries(const ManifestContent& manifest, const store::StoredRows& rows,
                                           const std::filesystem::path& pages);

// The Markdown files under `pages`, in order; symbolic links are left out.
std::vector<std::filesystem::path> page_files(const std::filesystem::path& pages);

// The title that the page file is headed with, as plain text; "" when it has none.
std::string title_line(const std::string& text);

// Whether the plan has the page give a digest.
bool gives_digest(const PagePlan* plan);

}  // namespace ossilar::workers::wiki
