#include "ossilar/workers/wiki/host/shared_files.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <set>
#include <utility>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/logging.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/pages/former_file.h"
#include "ossilar/workers/wiki/pages/page_files.h"
#include "ossilar/workers/wiki/pages/page_version.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

const utils::Logger files_logger("ossilar.workers.wiki.shared_files");

// Beside the names of manifests, which end in ".json".
constexpr std::string_view kPagePrefix = "pages/";
// Texts that are asked for in one query: some MB.
constexpr std::size_t kTextsTogether = 256;
// Each costs a look at its part of the lists; from here on all of them together are cheaper.
constexpr std::size_t kFewPages = 8;

std::string hash_in(const Map* row) {
  return row == nullptr ? "" : utils::string_member(*row, "content_hash");
}

std::string entry(const std::map<std::string, std::string>& of, const std::string& key) {
  const auto found = of.find(key);
  return found == of.end() ? "" : found->second;
}

}  // namespace

struct SharedFiles::Local {
  std::optional<std::string> text;  // none if there is no file
  std::string hash;
};

void SharedFiles::recall() {
  for (const auto& [name, hash] : wiki_.store.own_lists(wiki_.branch))
    if (name.starts_with(kPagePrefix) && !hash.empty()) made_[name.substr(kPagePrefix.size())] = hash;
}

// All pages at the first call, as hands and version control may have changed any file meanwhile. Those of
// saves of this process too: one that failed has left the new text with the old row.
std::vector<std::string> SharedFiles::changed_pages(const store::StoredRows& rows) const {
  std::vector<std::string> changed;
  for_each_difference(seen_, rows, [&](const std::string& page_id, const Map* /*before*/, const Map* after) {
    if (after != nullptr) changed.push_back(page_id);
  });
  for (const auto& [page_id, hash] : attempts_)
    if (rows.find(page_id) != nullptr) changed.push_back(page_id);
  return changed;
}

bool SharedFiles::is_known_text(const std::string& page_id, const std::string& text) {
  const std::string hash = _text_hash(text);
  if (hash == entry(made_, page_id) || hash == entry(attempts_, page_id)) return true;
  const std::string version = version_of(text);
  const auto versions = wiki_.store.page_versions(wiki_.branch, page_id);
  return std::any_of(versions.begin(), versions.end(),
                     [&](const store::PageVersion& each) { return each.version == version; });
}

bool SharedFiles::may_replace(const std::string& page_id, const std::string& row_hash, const Local& local) {
  if (!local.text || is_known_text(page_id, *local.text)) return true;
  return entry(made_, page_id) != row_hash || wiki_.lists.read_all().describes(page_id, local.hash);
}

// The files swap places, so an edit of the last moment is kept too.
void SharedFiles::write_page(const std::string& page_id, const std::string& text) {
  const fs::path file = wiki_.paths.page(page_id);
  const IsKnown is_known = [&](const std::string& former) { return is_known_text(page_id, former); };
  settle_former(file, page_id, is_known, wiki_.replaced);
  utils::atomic_exchange(file, text);
  const std::string kept = settle_former(file, page_id, is_known, wiki_.replaced);
  if (kept.empty()) return;
  files_logger.warning(
      "the file of the page '%s' was changed here and saved on another machine; the text from here is kept "
      "in %s",
      {page_id, (wiki_.paths.replaced() / kept).string()});
}

void SharedFiles::take_away(const std::string& page_id) {
  const fs::path file = wiki_.paths.page(page_id);
  const StandingPage page = read_standing_page(wiki_.paths.pages, file);
  if (page.bytes) wiki_.replaced.take(page_id, file, *page.bytes);
  made_.erase(page_id);
  unnoted_[std::string(kPagePrefix) + page_id] = "";
}

// Files without a row: of pages that were removed, or renamed, elsewhere. Version control may bring such a
// file back, so the first call looks at all files, and later ones at those that this machine has made and
// that lost their rows. What neither the history nor another page's former ids say is gone is left as it is:
// the database may be another one.
std::vector<std::string> SharedFiles::without_row(const store::StoredRows& rows, bool is_first) const {
  std::set<std::string> pages;
  for_each_difference(seen_, rows, [&](const std::string& page_id, const Map* /*before*/, const Map* after) {
    if (after == nullptr && made_.count(page_id) > 0) pages.insert(page_id);
  });
  if (!is_first) return {pages.begin(), pages.end()};
  for (const auto& [page_id, hash] : made_) pages.insert(page_id);
  for (const fs::path& file : page_files(wiki_.paths.pages))
    pages.insert(page_id_of(wiki_.paths.pages, file));
  std::erase_if(pages, [&](const std::string& page_id) { return rows.find(page_id) != nullptr; });
  return {pages.begin(), pages.end()};
}

bool SharedFiles::take_away_removed(const store::StoredRows& rows, bool is_first) {
  const std::vector<std::string> candidates = without_row(rows, is_first);
  if (candidates.empty()) return false;
  std::set<std::string> renamed;
  rows.for_each([&](const std::string& /*page_id*/, const Map& row) {
    for (std::string& id : former_ids(&row)) renamed.insert(std::move(id));
  });
  bool any = false;
  for (const std::string& page_id : candidates) {
    if (renamed.count(page_id) == 0 && may_adopt(page_id)) continue;
    take_away(page_id);
    any = true;
  }
  return any;
}

// The file of a page whose first save failed. It has no row, so no text can take its place.
void SharedFiles::take_away_failed(const store::StoredRows& rows) {
  for (const auto& [page_id, hash] : attempts_) {
    if (rows.find(page_id) != nullptr) continue;
    const fs::path file = wiki_.paths.page(page_id);
    const StandingPage page = read_standing_page(wiki_.paths.pages, file);
    if (page.bytes && _text_hash(page.text) == hash && unlink(file.c_str()) != 0 && errno != ENOENT)
      throw utils::IoError("cannot remove " + file.string(), errno);
  }
}

// But for pages that another machine saved between the reading of the rows and that of the texts: their files
// still hold what was attempted, and the next call must know it.
void SharedFiles::forget_attempts(const std::vector<std::string>& wanted,
                                  const std::vector<std::string>& written) {
  std::set<std::string> waiting(wanted.begin(), wanted.end());
  for (const std::string& page_id : written) waiting.erase(page_id);
  std::erase_if(attempts_, [&](const auto& attempt) { return waiting.count(attempt.first) == 0; });
}

bool SharedFiles::may_adopt(const std::string& page_id) {
  const auto versions = wiki_.store.page_versions(wiki_.branch, page_id);
  return versions.empty() || versions.front().version != kNoVersion;
}

// All of them where no pages are named. From here on the manifests say what the rows say, and bring no news.
void SharedFiles::renew_lists(const store::StoredRows& rows, const std::vector<std::string>& changed) {
  WikiLists::Own own;
  if (changed.empty() || changed.size() > kFewPages) {
    own = wiki_.lists.write_all(rows, wiki_.lists.lint());
  } else {
    for (const std::string& page_id : changed)
      for (auto& [name, hash] : wiki_.lists.write_page(rows, wiki_.lists.lint(), page_id)) own[name] = hash;
  }
  wiki_.store.note_own_lists(wiki_.branch, own);
}

void SharedFiles::note_attempt(const std::string& page_id, const std::string& text) {
  const std::lock_guard lock(mutex_);
  attempts_[page_id] = _text_hash(text);
}

// A page whose text the store does not have, as one that was stored before there were versions, is left as it
// is. The rows count as seen at the end: after a failure the next call begins again.
store::StoredRows SharedFiles::bring_in() {
  const std::lock_guard lock(mutex_);
  const bool is_first = !has_recalled_;
  if (is_first) recall();
  store::StoredRows rows = wiki_.store.get_wiki_pages(wiki_.branch);
  const std::vector<std::string> wanted = pages_to_write(rows);
  const std::vector<std::string> written = write_pages(rows, wanted);
  const bool took_away = take_away_removed(rows, is_first);
  take_away_failed(rows);
  if (took_away || !written.empty())
    renew_lists(rows, took_away || is_first ? std::vector<std::string>() : written);
  if (!unnoted_.empty()) wiki_.store.note_own_lists(wiki_.branch, unnoted_);
  unnoted_.clear();
  forget_attempts(wanted, written);
  has_failed_ = false;
  seen_ = rows;
  has_recalled_ = true;  // only now: after a failure the next call is the first again
  return rows;
}

// The changed pages whose files are not what their rows describe, and may be replaced.
std::vector<std::string> SharedFiles::pages_to_write(const store::StoredRows& rows) {
  std::vector<std::string> wanted;
  for (const std::string& page_id : changed_pages(rows)) {
    const std::string row_hash = hash_in(rows.find(page_id));
    const StandingPage page = read_standing_page(wiki_.paths.pages, wiki_.paths.page(page_id));
    const Local local{.text = page.bytes ? std::optional(page.text) : std::nullopt,
                      .hash = page.bytes ? _text_hash(page.text) : ""};
    if (local.hash == row_hash) {
      note_made(page_id, row_hash);
    } else if (may_replace(page_id, row_hash, local)) {
      wanted.push_back(page_id);
    }
  }
  return wanted;
}

// Gives those that were written. A text that is newer than its row here comes with the next call, which finds
// the newer row too.
std::vector<std::string> SharedFiles::write_pages(const store::StoredRows& rows,
                                                  const std::vector<std::string>& wanted) {
  std::vector<std::string> written;
  for (std::size_t at = 0; at < wanted.size(); at += kTextsTogether) {
    const std::size_t end = std::min(wanted.size(), at + kTextsTogether);
    const std::vector<std::string> some(wanted.begin() + static_cast<std::ptrdiff_t>(at),
                                        wanted.begin() + static_cast<std::ptrdiff_t>(end));
    for (const auto& [page_id, text] : wiki_.store.newest_texts(wiki_.branch, some)) {
      const std::string row_hash = hash_in(rows.find(page_id));
      if (_text_hash(text) != row_hash) continue;
      write_page(page_id, text);
      note_made(page_id, row_hash);
      written.push_back(page_id);
    }
  }
  return written;
}

void SharedFiles::note_made(const std::string& page_id, const std::string& hash) {
  if (entry(made_, page_id) == hash) return;
  made_[page_id] = hash;
  unnoted_[std::string(kPagePrefix) + page_id] = hash;
}

}  // namespace ossilar::workers::wiki
