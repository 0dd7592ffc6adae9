// Making rows for page files that have none, or whose row is about another text: those of a clone, of a
// branch that git switched to, of a pull or a merge, of a hand, of a save that was cut short.
//
// What the text does not say is taken from the page's own record (page_record.h), never from the sources as
// they are today: a page that was written against others must not look fresher than it is. A page without a
// record is unverified until somebody saves it.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/manifest.h"
#include "ossilar/workers/wiki/orchestrator.h"
#include "ossilar/workers/wiki/page_record.h"
#include "ossilar/workers/wiki/wiki.h"

namespace ossilar::workers::wiki {

struct AdoptionReport {
  std::size_t adopted = 0;
  std::size_t forgotten = 0;             // pages that version control removed
  std::size_t given_records = 0;         // page files of an older format that got a record
  std::vector<std::string> edited;       // page ids whose file is not the one that the manifest describes
  std::vector<std::string> undescribed;  // page ids of adopted files of which no manifest tells
  std::vector<std::string> unplanned;    // files under the pages directory that belong to no page
  std::vector<std::string> failed;       // messages on page files that could not be read
};

// Makes rows for the page files that have none on this branch, whoever wrote them, and writes the lists where
// they are missing. No text of an author is changed. Takes the write lock.
AdoptionReport adopt_pages(Wiki& wiki);

enum class WhenBusy { wait, skip };

// The same for pages that came or went by version control: those whose file is what a manifest describes and
// whose row is not, and those whose file is gone and that no manifest lists any more. Looks only when a
// manifest is another one than the last time, or a file that was not yet what one describes. Takes the write
// lock when there is something to adopt; with WhenBusy::skip, not while another holds it. What cannot be read
// is logged. A wiki of an older format is brought forward: its pages get their records.
AdoptionReport adopt_arrivals(Wiki& wiki, WhenBusy when_busy);

// The model of rows that were made of a text that no save stored.
inline constexpr const char* kAdoptedModel = "adopted";

// Adopting pages one by one, for those who choose them. The write lock is held for its whole life.
class Adoption {
 public:
  // `pages` are those that are about to be adopted: their titles are known to each other.
  Adoption(Wiki& wiki, ManifestContent manifest, const std::vector<std::string>& pages);

  // Makes row and chunks those of `text`, the page file's. Its digest waits for store_digests().
  void adopt_text(store::WikiStore& store, const std::string& page_id, const std::string& text);

  // The page's digest by its text; it waits for store_digests(). A text that was `changed_here`, or takes the
  // place of another, makes the pages above it stale, but for those that arrive whole with it.
  void settle_digest(const std::string& page_id, const std::string& text, const std::string& title,
                     bool changed_here);
  void drop_digest(const std::string& page_id) { digests_.erase(page_id); }

  // Keeps what the row alone knows of the page's text, before the row is about another.
  void keep_former_text(const std::string& page_id) const;
  // Removes the page's row, with its text kept.
  void forget_page(const std::string& page_id);

  // Whether a manifest describes this very text: then a save stored it, here or elsewhere.
  bool is_described(const std::string& page_id, const std::string& text) const;

  // Stores the digests that wait, with the stale marks that they cause.
  void store_digests(store::WikiStore& store);

  const ManifestContent& manifest() const { return manifest_; }
  const DraftBasis& basis() const { return basis_; }

 private:
  // What is known of a page file's text beside the text.
  struct Known {
    std::optional<PageRecord> record;
    std::string title;
    std::string chosen_title;   // "" when nobody chose it
    bool is_described = false;  // by a manifest
  };
  std::optional<PageRecord> known_record(const std::string& page_id, const std::string& text) const;
  Known known_of(const std::string& page_id, const std::string& text) const;
  void assume_rows(const std::vector<std::string>& pages);
  store::PageFields fields_of(const std::string& page_id, const std::string& text, const Known& known) const;
  std::vector<Map> citations_of(const std::string& page_id, const std::string& text,
                                const Known& known) const;

  Wiki& wiki_;
  const ManifestContent manifest_;
  store::StoredRows rows_;  // as stored
  DraftBasis basis_;        // with the rows that are to come
  store::PageDigests digests_;
  StringSet changed_;
  StringSet arrived_;
};

// What a save of the page's own text would write now, were the page stored as `basis` says; none when it
// would be refused.
std::optional<_PageDraft> redraft(Wiki& wiki, const DraftBasis& basis, const std::string& page_id,
                                  const std::string& text);

// The Markdown files under `pages`, in order; symbolic links are left out.
std::vector<std::filesystem::path> page_files(const std::filesystem::path& pages);

// The page id of a file below the pages directory.
std::string page_id_of(const std::filesystem::path& pages, const std::filesystem::path& file);

}  // namespace ossilar::workers::wiki
