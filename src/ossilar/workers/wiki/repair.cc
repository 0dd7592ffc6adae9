#include "ossilar/workers/wiki/repair.h"

#include <algorithm>

#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/inspection.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/open_wiki.h"

namespace ossilar::workers::wiki {

namespace {

// Index and manifest are written together, or neither.
bool is_unusable_list(const Finding& finding) {
  return !finding.fixable && (finding.fault == Fault::index || finding.fault == Fault::manifest);
}

// Whether mending it changes what index or manifest tell.
bool is_listed(const Finding& finding) {
  return finding.fixable && finding.fault != Fault::leftover && finding.fault != Fault::setup;
}

}  // namespace

Repair::Repair(WikiGenerator& wiki, const ManifestContent& manifest)
    : wiki_(wiki), manifest_(manifest), adoption_(wiki, manifest, wiki.prepare()) {}

void Repair::run(const std::vector<Finding>& findings) {
  for (const Finding& finding : findings)
    if (finding.fixable) mend(finding);
  adoption_.store_digests();
  wiki_._reread_existing();
  const bool can_list = std::none_of(findings.begin(), findings.end(), is_unusable_list);
  if (!can_list || std::none_of(findings.begin(), findings.end(), is_listed)) return;
  wiki_.write_lists({.git_commit = manifest_.commit.empty() ? wiki_._git_commit() : manifest_.commit,
                     .files_covered = wiki_._stored_files_covered(),
                     .lint = manifest_.lint},
                    &manifest_);
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
    case Fault::leftover:
      return utils::remove_leftovers((wiki_.paths_.root / finding.subject).parent_path());
    default:
      return;
  }
}

std::string Repair::text_of(const std::string& page_id) const {
  return utils::read_text_file_within(wiki_.paths_.pages, wiki_.paths_.pages / (page_id + ".md"));
}

// What the row alone knows of the page goes to where replaced texts are, before the row goes or is about
// another text.
void Repair::keep_former(const std::string& page_id, const Map& row) const {
  const auto cache = wiki_.store_->build_cache(wiki_.branch(), page_id);
  const std::string prose = utils::string_member(parsed_build_cache(cache.value_or("")), "prose");
  if (!prose.empty())
    wiki_.replaced_.keep(page_id, "# " + utils::string_member(row, "title") + "\n\n" + prose);
}

void Repair::take_over(const std::string& page_id) {
  const std::string text = text_of(page_id);
  const store::StoredRows rows = wiki_._existing();
  const Map* row = rows.find(page_id);
  if (row != nullptr && !adoption_.is_described(page_id, text)) keep_former(page_id, *row);
  adoption_.adopt_text(page_id, text);
}

void Repair::chunk_again(const std::string& page_id) {
  const auto key = wiki_.store_->page_key(wiki_.branch(), page_id);
  const store::StoredRows rows = wiki_._existing();
  const Map* row = rows.find(page_id);
  if (!key || row == nullptr) return;
  const auto citations = utils::json_member(*row, "citations").get<std::vector<Map>>();
  const ChunkScope scope = wiki_._chunk_scope(page_id);
  wiki_._store_chunks(*key, page_id,
                      wiki_._chunk_and_embed(searchable_text(text_of(page_id)), citations, scope.elsewhere),
                      scope.shared);
}

void Repair::settle_digest(const std::string& page_id) {
  const store::StoredRows rows = wiki_._existing();
  if (const Map* row = rows.find(page_id); row != nullptr) {
    const std::string text = text_of(page_id);
    const bool came_whole =
        utils::string_member(*row, "model") == Adoption::kModel && adoption_.is_described(page_id, text);
    return adoption_.settle_digest(page_id, text, utils::string_member(*row, "title"), !came_whole);
  }
  store::PageDigests digests = wiki_._page_digests();
  digests.erase(page_id);
  wiki_._set_page_digests(std::move(digests));
}

void Repair::forget_page(const std::string& page_id) {
  const store::StoredRows rows = wiki_._existing();
  const Map* row = rows.find(page_id);
  if (row == nullptr) return;
  keep_former(page_id, *row);
  wiki_.store_->remove_page(wiki_.branch(), page_id);
  store::PageDigests digests = wiki_._page_digests();
  digests.erase(page_id);
  wiki_._set_page_digests(std::move(digests));
}

}  // namespace ossilar::workers::wiki
