#include "ossilar/workers/wiki/repair.h"

#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/inspection.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/open_wiki.h"

namespace ossilar::workers::wiki {

Repair::Repair(WikiGenerator& wiki, const ManifestContent& manifest)
    : wiki_(wiki), lint_(manifest.lint), adoption_(wiki, manifest) {}

void Repair::run(const std::vector<Finding>& findings) {
  bool fixable = false;
  for (const Finding& finding : findings) {
    if (finding.fixable) mend(finding);
    fixable = fixable || finding.fixable;
  }
  if (!fixable) return;
  adoption_.store_digests();
  for (const auto& directory : written_directories(wiki_.paths_)) {
    if (!utils::leftovers(directory).empty()) utils::remove_leftovers(directory);
  }
  wiki_._reread_existing();
  wiki_._write_index_and_manifest(
      {.git_commit = wiki_._git_commit(), .files_covered = wiki_._stored_files_covered(), .lint = lint_});
}

// What is not here is set right for the whole wiki at the end of run().
void Repair::mend(const Finding& finding) {
  switch (finding.fault) {
    case Fault::setup:
      set_up_wiki(wiki_.paths_.root);
      return;
    case Fault::newer_page:
    case Fault::edited_page:
    case Fault::file_without_row:
      return take_over(finding.page_id);
    case Fault::row_without_file:
      return forget_page(finding.page_id);
    case Fault::chunks:
      return chunk_again(finding.page_id);
    case Fault::digest:
      return settle_digest(finding.page_id);
    default:
      return;
  }
}

std::string Repair::text_of(const std::string& page_id) const {
  return utils::read_text_file_within(wiki_.paths_.pages, wiki_.paths_.pages / (page_id + ".md"));
}

void Repair::take_over(const std::string& page_id) { adoption_.adopt_text(page_id, text_of(page_id)); }

void Repair::chunk_again(const std::string& page_id) {
  const auto key = wiki_.store_->page_key(wiki_.branch(), page_id);
  const store::StoredRows rows = wiki_._existing();
  const Map* row = rows.find(page_id);
  if (!key || row == nullptr) return;
  const auto citations = utils::member(*row, "citations").get<std::vector<Map>>();
  const ChunkScope scope = wiki_._chunk_scope(page_id);
  wiki_._store_chunks(*key, page_id,
                      wiki_._chunk_and_embed(searchable_text(text_of(page_id)), citations, scope.elsewhere),
                      scope.shared);
}

void Repair::settle_digest(const std::string& page_id) {
  const store::StoredRows rows = wiki_._existing();
  if (const Map* row = rows.find(page_id); row != nullptr) {
    return adoption_.settle_digest(page_id, text_of(page_id), utils::string_member(*row, "title"));
  }
  store::PageDigests digests = wiki_._page_digests();
  digests.erase(page_id);
  wiki_._set_page_digests(std::move(digests));
}

// The page's text goes to where replaced texts are before its last place goes.
void Repair::forget_page(const std::string& page_id) {
  const store::StoredRows rows = wiki_._existing();
  const Map* row = rows.find(page_id);
  if (row == nullptr) return;
  const Map cache = build_cache_of(row);
  wiki_.replaced_.keep(
      page_id, "# " + utils::string_member(*row, "title") + "\n\n" + utils::string_member(cache, "prose"));
  wiki_.store_->remove_page(wiki_.branch(), page_id);
  store::PageDigests digests = wiki_._page_digests();
  digests.erase(page_id);
  wiki_._set_page_digests(std::move(digests));
}

}  // namespace ossilar::workers::wiki
