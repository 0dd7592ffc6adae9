// Three rounds, each built on the one before: pages and their rows, then digests with the stale marks, then
// the lists. Digests need all pages, as which marks are due depends on which pages changed together; the
// lists need all rows, and with content hashes in them they vouch for what was done. Killed in between, the
// next check finds the later rounds missing.
#include "ossilar/workers/wiki/check/repair.h"

#include <algorithm>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/check/inspection.h"
#include "ossilar/workers/wiki/check/page_file.h"
#include "ossilar/workers/wiki/check/renaming.h"
#include "ossilar/workers/wiki/host/open_wiki.h"
#include "ossilar/workers/wiki/pages/former_file.h"
#include "ossilar/workers/wiki/pages/page_files.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {

namespace {

// A list that is no regular file. Lists are written together or not at all: write_all() throws at such a
// file, which would end the repair before its other work is reported.
bool is_unusable_list(const Finding& finding) {
  return !finding.fixable && (finding.fault == Fault::index || finding.fault == Fault::manifest);
}

bool takes_page(Fault fault) {
  return fault == Fault::newer_page || fault == Fault::edited_page || fault == Fault::file_without_row ||
         fault == Fault::half_renamed;
}

// Whether the lists are to be written after it: mending it may change what they say, or it is about a list.
bool is_listed(const Finding& finding) {
  return finding.fixable && finding.fault != Fault::leftover && finding.fault != Fault::setup;
}

std::vector<std::string> pages_to_take(const std::vector<Finding>& findings) {
  std::vector<std::string> pages;
  for (const Finding& finding : findings)
    if (finding.fixable && takes_page(finding.fault)) pages.push_back(finding.page_id);
  return pages;
}

// The former ids of pages whose renaming was cut short.
std::vector<std::string> pages_to_leave(const Wiki& wiki, const store::StoredRows& rows,
                                        const std::vector<Finding>& findings) {
  std::vector<std::string> pages;
  for (const Finding& finding : findings) {
    if (finding.fault != Fault::half_renamed) continue;
    if (auto former = renaming_cut_short(wiki, rows, page_text(wiki.paths(), finding.page_id)))
      pages.push_back(*std::move(former));
  }
  return pages;
}

}  // namespace

Repair::Repair(Wiki& wiki, const ManifestContent& manifest, const std::vector<Finding>& findings)
    : wiki_(wiki),
      findings_(findings),
      rows_(wiki.stored_pages()),
      adoption_(wiki, manifest, pages_to_take(findings), pages_to_leave(wiki, rows_, findings)) {}

void Repair::run() {
  for (const Finding& finding : findings_)
    if (finding.fixable) mend(finding);
  adoption_.store_digests(wiki_.store());
  // No page is awaited any more: what is there now was taken over or named. So the lists drop the lines of
  // pages that never came.
  wiki_.lists().note({}, {});
  const bool can_list = std::none_of(findings_.begin(), findings_.end(), is_unusable_list);
  if (can_list && std::any_of(findings_.begin(), findings_.end(), is_listed))
    wiki_.note_lists(wiki_.lists().write_all(wiki_.stored_pages(), adoption_.manifest().lint));
}

// The faults of `default` that are fixable, index and manifest, are mended for the whole wiki at the end of
// run(); a damaged database is wiki_check.cc's.
void Repair::mend(const Finding& finding) {
  switch (finding.fault) {
    case Fault::setup:
      set_up_wiki(wiki_.paths().root);
      return;
    case Fault::newer_page:
    case Fault::edited_page:
    case Fault::file_without_row:
      return take_over(finding.page_id);
    case Fault::half_renamed:
      return finish_renaming(finding.page_id);
    case Fault::row_without_file:
      return adoption_.forget_page(finding.page_id);
    case Fault::chunks:
      return chunk_again(finding.page_id);
    case Fault::digest:
      return settle_digest(finding.page_id);
    case Fault::leftover:
      return settle_leftover(finding);
    default:
      return;
  }
}

// The file as it stands becomes the page. If no manifest vouches for it, it may have overwritten the last
// copy of the text that the row has, so that one is kept first.
void Repair::take_over(const std::string& page_id) {
  const std::string text = page_text(wiki_.paths(), page_id);
  if (!adoption_.is_described(page_id, text)) adoption_.keep_former_text(page_id);
  adoption_.adopt_text(wiki_.store(), page_id, text);
}

// From where it was cut short: what was done already is found as it should be.
void Repair::finish_renaming(const std::string& page_id) {
  const auto former = renaming_cut_short(wiki_, rows_, page_text(wiki_.paths(), page_id));
  if (!former) return;
  const Renamed renamed{*former, page_id};
  relink_pages(wiki_, renamed, "");
  put_page_file_away(wiki_, renamed.from, rows_.find(renamed.from));
  const auto transaction = wiki_.store().begin("rename the page " + renamed.from + " to " + renamed.to);
  move_row(wiki_, *transaction, adoption_, renamed, "");
  transaction->commit();
}

void Repair::chunk_again(const std::string& page_id) {
  const auto key = wiki_.store().page_key(wiki_.branch(), page_id);
  const Map* row = rows_.find(page_id);
  if (!key || row == nullptr) return;  // chunks belong to a row
  const auto citations = utils::json_member(*row, "citations").get<std::vector<Map>>();
  utils::Task task;
  replace_chunks(wiki_.chunk_services(wiki_.store(), task), wiki_.branch(), page_id, *key,
                 searchable_text(page_text(wiki_.paths(), page_id)), citations);
}

void Repair::settle_digest(const std::string& page_id) {
  const Map* row = rows_.find(page_id);
  if (row == nullptr) return adoption_.drop_digest(page_id);  // a digest without a page
  const std::string text = page_text(wiki_.paths(), page_id);
  adoption_.settle_digest(page_id, text, utils::string_member(*row, "title"),
                          !adoption_.is_described(page_id, text));
}

// A temporary file is half a write and is removed. A former file may be the only copy of a manual edit, so it
// is settled as a save would do it, by the row of before the repair; one whose page is gone is always kept.
void Repair::settle_leftover(const Finding& finding) const {
  const std::filesystem::path& file = finding.file;
  if (file.extension() != ".former") return utils::remove_leftovers(file.parent_path());
  const auto page = page_of_former(file);
  const std::string page_id = page ? page_id_of(wiki_.paths().pages, *page) : "";
  const auto is_known = [saved = saved_hash(rows_.find(page_id))](const std::string& text) {
    return _text_hash(text) == saved;
  };
  if (page) {
    settle_former(*page, page_id, is_known, wiki_.replaced_texts());
  } else {
    wiki_.replaced_texts().take("former", file, utils::read_file_within(file.parent_path(), file));
  }
}

}  // namespace ossilar::workers::wiki
