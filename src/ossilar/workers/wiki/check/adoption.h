// Making rows for page files that have none, or whose row is about another text: those of a clone, of a
// branch that git switched to, of a pull or a merge, of a manual edit, of a save that was cut short.
// arrivals.cc and repair.cc choose the pages; inspection.cc and older_format.cc use the free functions.
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
#include "ossilar/workers/wiki/host/history.h"
#include "ossilar/workers/wiki/host/save_at_work.h"
#include "ossilar/workers/wiki/host/wiki.h"
#include "ossilar/workers/wiki/pages/manifest.h"
#include "ossilar/workers/wiki/pages/page_record.h"

namespace ossilar::workers::wiki {

// Gives each claim without a whole fingerprint one, if its file still is what it was when the citation was
// written (by the record's source hashes). Otherwise it stays as it is: what was cited is not known any more.
void add_unchanged_texts(PageRecord& record, const PlannedWiki& planned, const std::filesystem::path& root);

// The model of rows that were made of a text that no save stored.
inline constexpr const char* kAdoptedModel = "adopted";

// Adopts pages one by one.
//
// Threads: one, which holds the write lock for the object's whole life and has prepared the wiki. Failures: a
// call for one page that throws utils::Error leaves the others as they are. Its own steps before the failure
// stay, and `ossilar check` names what is missing.
class Adoption {
 public:
  // `pages` are those that are about to be adopted. Links between them are resolved in whatever order they
  // are adopted. `leaving` are those that will have no row afterwards, so that plan and links do without
  // them.
  Adoption(Wiki& wiki, ManifestContent manifest, const std::vector<std::string>& pages,
           const std::vector<std::string>& leaving = {});

  // Makes row and chunks those of `text`, the page file's, and notes it in the page's history. `store` is the
  // wiki's or a transaction of it. The digest waits for store_digests().
  void adopt_text(store::WikiStore& store, const std::string& page_id, const std::string& text,
                  const PageChange& change = {.client = {}, .action = action::kAdopted});

  // Sets the page's digest by its text; it waits for store_digests(). The pages above become stale if the
  // text was `changed_here` or replaces another one, unless they are adopted together with it as a manifest
  // describes them.
  void settle_digest(const std::string& page_id, const std::string& text, const std::string& title,
                     bool changed_here);
  void drop_digest(const std::string& page_id) { digests_.erase(page_id); }

  // Keeps the text that the row has of the page in `.ossilar/replaced`. To be called before the row is about
  // another text: it may be the last copy. Gives the kept file relative to the repository's root, "" for
  // none.
  std::string keep_former_text(const std::string& page_id) const;
  // Removes the page's row and keeps its text. The digest goes with store_digests().
  void forget_page(const std::string& page_id);

  // Whether a manifest describes this very text: then a save stored it, here or elsewhere.
  bool is_described(const std::string& page_id, const std::string& text) const;

  // Stores the digests that wait, with the stale marks that they cause. To be called once, after the last
  // page: which marks are due depends on all of them.
  void store_digests(store::WikiStore& store);

  const ManifestContent& manifest() const { return manifest_; }
  const DraftBasis& basis() const { return basis_; }

 private:
  // What is known of a page file's text beside the text.
  struct Known {
    std::optional<PageRecord> record;
    std::string title;
    std::string chosen_title;  // "" when nobody chose it
    std::vector<std::string> former_ids;
    bool is_described = false;  // by a manifest
  };
  std::optional<PageRecord> known_record(const std::string& page_id, const std::string& text) const;
  Known known_of(const std::string& page_id, const std::string& text) const;
  void assume_rows(const std::vector<std::string>& pages, const std::vector<std::string>& leaving);
  void assume_files(const std::vector<std::string>& pages);
  store::PageFields fields_of(const std::string& page_id, const std::string& text, const Known& known) const;
  std::vector<KnownClaim> claims_of_text(const std::string& page_id, const std::string& text,
                                         const Known& known) const;
  std::map<std::string, std::string> cited_texts(const std::vector<KnownClaim>& claims) const;

  Wiki& wiki_;
  const ManifestContent manifest_;
  store::StoredRows rows_;      // as stored when the adoption began
  DraftBasis basis_;            // with the titles of the rows that are to come
  store::PageDigests digests_;  // as they will be stored
  StringSet changed_;           // pages whose digest may make the pages above stale
  StringSet arrived_;           // pages adopted as a manifest describes them; they get no mark
};

// What a save of `text`, the page's own file, would write now if the wiki stood as `basis` says; none when
// the save would be refused. Writes nothing.
std::optional<_PageDraft> redraft(Wiki& wiki, const DraftBasis& basis, const std::string& page_id,
                                  const std::string& text);

}  // namespace ossilar::workers::wiki
