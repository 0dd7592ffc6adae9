// Giving a stored page another id (`ossilar rename`), for one whose module got another name.
// operations/rename_page.cc calls rename_page(), and check/repair.cc finishes a renaming that was cut short.
//
// Nothing is written anew: the page keeps its text, its record and its state, and looks no fresher than it
// was.
//
// Thread-safety: rename_page() may be called from any thread and takes the write lock; all else belongs to
// the lock's holder. Failures: utils::Error, and utils::Cancelled before the lock was had. A call that is cut
// short leaves the old page, or two page files of which the new one names the old id (see
// renaming_cut_short()), which `ossilar check --fix` finishes.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/check/adoption.h"
#include "ossilar/workers/wiki/host/wiki.h"
#include "ossilar/workers/wiki/pages/link_targets.h"

namespace ossilar::workers::wiki {

// Gives the page `page_id` the id `new_id`. Pages that link to it get their definitions rewritten, its former
// id leads to it (WikiReader::standing_id()), and its old file goes to `.ossilar/replaced`. A title that
// nobody chose becomes the planned one of the new id, as a save would have it.
//
// Refused for a page that is not stored, for an id that is none, is taken, or would not be in the plan, and
// for a page of another version than `if_version`. A call that repeats one that was carried out succeeds.
Answer rename_page(Wiki& wiki, const std::string& page_id, const std::string& new_id,
                   const std::optional<std::string>& if_version, const std::string& client,
                   utils::Task& task);

// The former id if `text`, the file of `page_id`, which has no row, was written by a renaming that did not
// come to its end; else none.
std::optional<std::string> renaming_cut_short(const Wiki& wiki, const store::StoredRows& rows,
                                              const std::string& text);

// What is left to do once the new file is there, each step after the one that it needs.
//
// The definitions of other pages lead to the new file. Gives the pages that had one.
std::vector<std::string> relink_pages(Wiki& wiki, const Renamed& renamed, const std::string& client);
// The row of the new id for that of the old one, with its stale mark. `adoption` knows the new page, and that
// the old one leaves; its digests are the caller's to store.
void move_row(Wiki& wiki, store::WikiStore& store, Adoption& adoption, const Renamed& renamed,
              const std::string& client);

}  // namespace ossilar::workers::wiki
