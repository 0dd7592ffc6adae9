// settle_former() runs before and after a swap: only one former file can lie beside a page, and a killed save
// may have left one.
//
// A file is moved away and not copied, so an editor that has it open goes on writing to the kept file.
#include "ossilar/workers/wiki/check/page_file.h"

#include <system_error>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/logging.h"
#include "ossilar/workers/wiki/agent_save.h"
#include "ossilar/workers/wiki/pages/former_file.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

const utils::Logger page_file_logger("ossilar.workers.wiki.page_file");

// Stops at the first that holds something.
void remove_empty_folders(fs::path folder, const fs::path& pages) {
  std::error_code kept;
  while (folder != pages && fs::remove(folder, kept) && !kept) folder = folder.parent_path();
}

}  // namespace

void rewrite_page_file(Wiki& wiki, const std::string& page_id, const std::string& text,
                       const std::string& changed) {
  const fs::path page = wiki.paths().page(page_id);
  const auto is_known = [&](const std::string& former) { return former == text || former == changed; };
  const auto settle = [&] {
    const std::string kept = settle_former(page, page_id, is_known, wiki.replaced_texts());
    if (!kept.empty()) {
      page_file_logger.warning(
          "the page '%s' was edited by hand while its file was rewritten; the edited text is kept in %s",
          {page_id, (wiki.paths().replaced() / kept).string()});
    }
  };
  settle();
  utils::atomic_exchange(page, changed);
  settle();
}

std::string put_page_file_away(Wiki& wiki, const std::string& page_id, const Map* row) {
  const WikiPaths& paths = wiki.paths();
  const fs::path page = paths.page(page_id);
  const auto is_known = [saved = saved_hash(row)](const std::string& text) {
    return _text_hash(text) == saved;
  };
  settle_former(page, page_id, is_known, wiki.replaced_texts());
  if (!utils::is_regular_file(page)) return "";
  const std::string name =
      wiki.replaced_texts().take(page_id, page, utils::read_file_within(paths.pages, page));
  remove_empty_folders(page.parent_path(), paths.pages);
  return (paths.replaced() / name).lexically_relative(paths.root).string();
}

void publish_rows(Wiki& wiki) {
  try {
    const store::StoredRows rows = wiki.stored_pages();
    wiki.note_lists(wiki.lists().write_all(rows, wiki.lists().lint()));
    wiki.store().upsert_wiki_state(wiki.branch(), {.last_built_at = _now_iso(),
                                                   .last_commit = wiki.commit(),
                                                   .changed_since_build = 0,
                                                   .model = kAgentModel,
                                                   .page_count = static_cast<std::int64_t>(rows.size()),
                                                   .manifest_hash = ""});
  } catch (const std::exception& error) {
    page_file_logger.warning("cannot refresh the lists and the state of the wiki", error);
  }
}

}  // namespace ossilar::workers::wiki
