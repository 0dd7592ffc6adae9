// The page files of a machine that shares its wiki with others: its working copy of what the store holds.
// Wiki has one only over a store that several machines share.
//
// Other machines write rows and versions, and never this machine's files. So what changed there is brought in
// before it matters here: before pages are looked at or taken over, before a draft, and once the write lock
// is had.
//
// A page file is replaced if it is as this machine last made it, or as any kept version of the page. Any
// other text is a hand's, or one that version control brought. It stays while the page's row stays; when the
// row changes, or when a manifest vouches for it, so that version control brought it, it goes to
// `.ossilar/replaced` and is told of in the log.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/host/wiki_paths.h"
#include "ossilar/workers/wiki/pages/kept_texts.h"
#include "ossilar/workers/wiki/pages/list_files.h"

namespace ossilar::workers::wiki {

// Thread-safety: any thread, which holds the machine's lock. Lifetime: what it is made of outlives it.
class SharedFiles {
 public:
  struct Wiki {
    const WikiPaths& paths;
    const std::string& branch;
    store::WikiStore& store;
    const KeptTexts& replaced;
    WikiLists& lists;
  };
  explicit SharedFiles(Wiki wiki) : wiki_(wiki) {}

  // Brings in what changed since the last call; the first one looks at all files. Gives the rows. Throws
  // utils::Error for a file that cannot be written, store::StorageError; what was brought in before that
  // stays.
  store::StoredRows bring_in();

  // Notes the text that a save is about to write: if the save then fails, it is no hand's.
  void note_attempt(const std::string& page_id, const std::string& text);
  // Whether files may be there that a failed save wrote, until the next bring_in().
  void note_failure() { has_failed_ = true; }
  bool has_failed() const { return has_failed_; }

  // Whether the page may get a row because version control brought its file: not one that was removed.
  bool may_adopt(const std::string& page_id);

 private:
  struct Local;  // a page file as it is here

  void recall();
  std::vector<std::string> changed_pages(const store::StoredRows& rows) const;
  bool may_replace(const std::string& page_id, const std::string& row_hash, const Local& local);
  bool is_known_text(const std::string& page_id, const std::string& text);
  void write_page(const std::string& page_id, const std::string& text);
  void take_away(const std::string& page_id);
  std::vector<std::string> without_row(const store::StoredRows& rows, bool is_first) const;
  bool take_away_removed(const store::StoredRows& rows, bool is_first);
  void take_away_failed(const store::StoredRows& rows);
  void forget_attempts(const std::vector<std::string>& wanted, const std::vector<std::string>& written);
  std::vector<std::string> pages_to_write(const store::StoredRows& rows);
  std::vector<std::string> write_pages(const store::StoredRows& rows, const std::vector<std::string>& wanted);
  void note_made(const std::string& page_id, const std::string& hash);
  void renew_lists(const store::StoredRows& rows, const std::vector<std::string>& changed);

  const Wiki wiki_;
  std::atomic<bool> has_failed_ = false;
  std::mutex mutex_;  // guards all that follows
  bool has_recalled_ = false;
  // By page id the hash of the text that this machine last made its file of, or found there as in the row.
  // Kept in the store's notes of own lists, which are this machine's alone.
  std::map<std::string, std::string> made_;
  std::map<std::string, std::string> unnoted_;   // of these, what is not stored yet
  std::map<std::string, std::string> attempts_;  // hashes of what saves of this process were about to write
  store::StoredRows seen_;                       // the rows that were dealt with
};

}  // namespace ossilar::workers::wiki
