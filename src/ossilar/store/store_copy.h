// A wiki copied from one store into another, whatever databases are behind them (host/copy_wiki.h).
//
// Rows, chunks with their vectors, stale marks, cited texts, history with its numbers, digests and state are
// copied as they are. What each store makes of them by itself is made again: the index of words, and which
// files a page rests on. Vectors of a model that no chunk has yet are left out: a change of the model that
// was cut short goes on from there, and makes them. What is this machine's alone (own lists, source records)
// is no part of a wiki.
//
// Threads: the caller's, which holds the write locks of both. Errors: StorageError.
#pragma once

#include <cstddef>
#include <string>

#include "ossilar/store/repository.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/task.h"

namespace ossilar::store {

// Nothing was written: the target holds another wiki, or the source holds none.
class CopyRefused : public utils::Error {
 public:
  explicit CopyRefused(const std::string& message, utils::Place place = utils::Place::current())
      : Error(message, place) {}
};

struct CopyCounts {
  std::size_t pages = 0;  // with a row or a history alone, as a removed page has
  std::size_t versions = 0;
  std::size_t passages = 0;
  std::size_t texts = 0;    // cited by each page
  std::size_t present = 0;  // of the pages, those that the target held as they are
};

// Throws CopyRefused if the target holds a page of the branch that is no present or former state of the
// source's: one whose newest version the source's history does not have, or, where it has no history, whose
// text is another. So what a copy left that was cut short passes, and so does a copy that is behind.
void require_same_wiki(WikiStore& from, WikiStore& to, const std::string& branch);

// Makes the branch in `to` what it is in `from`, and then compares all that was copied, by count and content.
// A page and all that belongs to it are in one transaction, of some pages, so a copy that is cut short holds
// whole pages, and the next one copies the others. Throws StorageError, which names the page, where the
// comparison fails.
CopyCounts copy_branch(WikiStore& from, WikiStore& to, const std::string& branch,
                       const utils::Progress& progress);

}  // namespace ossilar::store
