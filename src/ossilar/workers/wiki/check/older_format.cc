#include "ossilar/workers/wiki/check/older_format.h"

#include <optional>
#include <string>
#include <utility>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/logging.h"
#include "ossilar/workers/wiki/check/adoption.h"
#include "ossilar/workers/wiki/check/batches.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/pages/former_file.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

const utils::Logger older_format_logger("ossilar.workers.wiki.older_format");

// The page's file with the record that its row knows, or none when it has one or is not the row's text.
std::optional<std::string> text_with_record(const std::string& text, const std::string& content_hash,
                                            const PageRecord& record) {
  if (_text_hash(text) != content_hash || record_of(text)) return std::nullopt;
  return with_record(text, record_text(record));
}

// Whether the text is one that text_with_record() made of the row's: whoever made it was cut short after it.
bool is_half_done(const std::string& text, const std::string& content_hash) {
  if (!record_of(text)) return false;
  std::string bare = without_record(text);
  if (bare.ends_with("\n")) bare.pop_back();
  return _text_hash(bare) == content_hash;
}

// Puts `changed` in the place of the page's file, of which `text` was read. What a hand, or a save that was
// killed, left there meanwhile is kept, as in a save.
void replace_file(Wiki& wiki, const std::string& page_id, const std::string& text,
                  const std::string& changed) {
  const fs::path page = wiki.paths().page(page_id);
  const auto is_known = [&](const std::string& former) { return former == text || former == changed; };
  const auto settle = [&] {
    const std::string kept = settle_former(page, page_id, is_known, wiki.replaced_texts());
    if (!kept.empty()) {
      older_format_logger.warning(
          "the page '%s' was edited by hand while it got its record; that text is kept in %s",
          {page_id, (wiki.paths().replaced() / kept).string()});
    }
  };
  settle();
  utils::atomic_exchange(page, changed);
  settle();
}

// The file first, as in a save: cut short in between, the file is the whole new one and is taken up here.
bool give_record(Wiki& wiki, store::WikiStore& store, const std::string& page_id, const Map& row) {
  const std::string content_hash = utils::string_member(row, "content_hash");
  std::string text = page_text(wiki.paths(), page_id);
  PageRecord record = record_of_row(row);
  add_unchanged_texts(record, *wiki.planned(), wiki.paths().root);
  if (auto changed = text_with_record(text, content_hash, record)) {
    replace_file(wiki, page_id, text, *changed);
    text = *std::move(changed);
  } else if (!is_half_done(text, content_hash)) {
    return false;
  }
  store.restate_page(wiki.branch(), page_id, _text_hash(text), record.citations);
  return true;
}

}  // namespace

std::size_t give_records(Wiki& wiki) {
  std::size_t given = 0;
  Batches batches(wiki.store());
  wiki.stored_pages().for_each([&](const std::string& page_id, const Map& row) {
    if (utils::string_member(row, "status") == kUnverified) return;
    try {
      if (!utils::is_regular_file(wiki.paths().page(page_id))) return;
      batches.add([&](store::WikiStore& store) { given += give_record(wiki, store, page_id, row) ? 1 : 0; });
    } catch (const store::StorageError&) {
      throw;
    } catch (const utils::Error& error) {
      older_format_logger.warning("a page of an older format got no record", error);
    }
  });
  batches.end();
  return given;
}

}  // namespace ossilar::workers::wiki
