// Removing a stored page (`ossilar remove`), for one whose module went. operations/remove_page.cc calls it.
//
// Thread-safety: any thread may call; the write lock is taken here. Failures: utils::Error, and
// utils::Cancelled before the lock was had. A call that is cut short leaves the page, or a row without a
// file, which `ossilar check --fix` forgets; the text is then in `.ossilar/replaced`.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

// The refusal of a change of the page `page_id`, which has another version than `if_version`: `error`,
// `page_id`, `version` (the page's now), and `diff` where the text of that version is still known. None where
// it is the same or no version was asked for.
std::optional<Answer> refuse_other_page(Wiki& wiki, const std::string& page_id, const StandingPage& page,
                                        const std::optional<std::string>& if_version);

// Why nothing can be done to a page that is not stored: what became of it, as far as that is known.
std::string why_not_stored(Wiki& wiki, const std::string& page_id);

// The stored pages that have a link definition to the page `target`. A page that cannot be read has none.
std::vector<std::string> pages_linking(const Wiki& wiki, const store::StoredRows& rows,
                                       const std::string& target);

// Removes the page's file, row, chunks and digest. Its file goes to `.ossilar/replaced`. Pages that build on
// its digest become stale, if the plan has the page; it is missing then. Links to it stay as text, and their
// definitions until those pages are next saved: the answer's `linked_by` names them.
//
// Refused for a page that is not stored, and for one of another version than `if_version`.
Answer remove_page(Wiki& wiki, const std::string& page_id, const std::optional<std::string>& if_version,
                   const std::string& client, utils::Task& task);

}  // namespace ossilar::workers::wiki
