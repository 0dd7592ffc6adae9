// The record is made of the row, which knows what the page was when it was saved. A save of the same text
// would write a record too, but with the hashes of today's sources.
//
// For each page the file is written first and its row restated after it. The rows of many pages are committed
// together, so a kill can leave files that have their record already while their rows know the text without
// it. Such a page is recognised by its text (is_half_done()) and only its row is restated.
#include "ossilar/workers/wiki/check/older_format.h"

#include <optional>
#include <string>
#include <utility>

#include "ossilar/utils/files.h"
#include "ossilar/utils/logging.h"
#include "ossilar/workers/wiki/check/adoption.h"
#include "ossilar/workers/wiki/check/batches.h"
#include "ossilar/workers/wiki/check/page_file.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/host/history.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

const utils::Logger older_format_logger("ossilar.workers.wiki.older_format");

// `text` with the record, or none when it has one already or is not the row's text: a changed text is another
// than the row's facts are about.
std::optional<std::string> text_with_record(const std::string& text, const std::string& content_hash,
                                            const PageRecord& record) {
  if (_text_hash(text) != content_hash || record_of(text)) return std::nullopt;
  return with_record(text, record_text(record));
}

// Whether the text is one that text_with_record() made of the row's text, by a call that was cut short before
// the row. with_record() puts a line feed between text and record, which is taken off here.
bool is_half_done(const std::string& text, const std::string& content_hash) {
  if (!record_of(text)) return false;
  std::string bare = without_record(text);
  if (bare.ends_with("\n")) bare.pop_back();
  return _text_hash(bare) == content_hash;
}

// Claims of an earlier format get the heading that they stand under and what their sentence says.
void place_claims(PageRecord& record, const std::string& text) {
  const KnownClaims known(std::exchange(record.claims, {}));
  for (const auto& [claim, remembered] : known_in(split_authored(text, "").text(), known))
    record.claims.push_back({claim.citation, claim.heading, claim.says, remembered->print});
}

// The file first, as in a save: rows follow files. `text` is what the file holds in the end, and the row gets
// its hash, whether the record was written just now or by a call that was cut short.
bool give_record(Wiki& wiki, store::WikiStore& store, const std::string& page_id, const Map& row) {
  const std::string content_hash = utils::string_member(row, "content_hash");
  std::string text = page_text(wiki.paths(), page_id);
  PageRecord record = record_of_row(row);
  add_unchanged_texts(record, *wiki.planned(), wiki.paths().root);
  place_claims(record, text);
  if (auto changed = text_with_record(text, content_hash, record)) {
    rewrite_page_file(wiki, page_id, text, *changed);
    text = *std::move(changed);
  } else if (!is_half_done(text, content_hash)) {
    return false;
  }
  store.restate_page(wiki.branch(), page_id, _text_hash(text), stretches_of(record.claims));
  note_version(wiki, store, page_id, {.client = {}, .action = action::kMigrated}, text);
  return true;
}

}  // namespace

std::size_t give_records(Wiki& wiki) {
  std::size_t given = 0;
  Batches batches(wiki.store());
  wiki.stored_pages().for_each([&](const std::string& page_id, const Map& row) {
    if (utils::string_member(row, "status") == kUnverified) return;  // nobody knows what its record would say
    try {
      if (!utils::is_regular_file(wiki.paths().page(page_id))) return;
      batches.add([&](store::WikiStore& store) { given += give_record(wiki, store, page_id, row) ? 1 : 0; });
    } catch (const store::StorageError&) {
      throw;
    } catch (const utils::Error& error) {
      older_format_logger.warning("cannot add the record to a page of an older format", error);
    }
  });
  batches.end();
  return given;
}

}  // namespace ossilar::workers::wiki
