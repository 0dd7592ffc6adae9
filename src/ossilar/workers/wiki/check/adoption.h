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

#include "ossilar/workers/wiki/agent_save.h"
#include "ossilar/workers/wiki/host/save_at_work.h"
#include "ossilar/workers/wiki/host/wiki.h"
#include "ossilar/workers/wiki/pages/manifest.h"
#include "ossilar/workers/wiki/pages/page_record.h"

namespace ossilar::workers::wiki {

// Gives the citations that have no hash of the text that they cite one, where the file is what it was when
// they were written.
void add_unchanged_texts(PageRecord& record, const PlannedWiki& planned, const std::filesystem::path& root);

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

}  // namespace ossilar::workers::wiki
