// The history of pages: notes each change of a page file, with who asked for it. Versions are kept by the
// store, the last `[history] versions` of each page; asking/page_versions.h gives them back.
//
// Whatever writes a row notes the version in the row's transaction: saves (orchestrator.cc), adoptions,
// renamings, removals and migrations (check/).
//
// Thread-safety: any thread; the notes belong to the holder of the write lock.
#pragma once

#include <string>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

// Who asked for a change, and what was done. `client` is "" where nobody knows, as of a text that version
// control brought.
struct PageChange {
  std::string client = {};
  std::string action = {};
};

// What was done, as `ossilar log` shows it.
namespace action {
inline constexpr const char* kSaved = "saved";
inline constexpr const char* kConfirmed = "confirmed";  // the words are as they were
inline constexpr const char* kFollowed = "followed";    // only lines of moved citations were rewritten
inline constexpr const char* kRestored = "restored";    // an earlier version was saved again
inline constexpr const char* kRenamed = "renamed";      // the page has this id from now on
inline constexpr const char* kRelinked = "relinked";    // a link follows another page's renaming
inline constexpr const char* kMigrated = "migrated";    // the file got its record
inline constexpr const char* kAdopted = "adopted";  // taken over as it stood: from version control or a hand
inline constexpr const char* kFound = "found";      // replaced by the next change, and not noted before
inline constexpr const char* kRemoved = "removed";
}  // namespace action

// Notes in `store`, the wiki's or a transaction of it, that `text` is the text of the page's file from now
// on. `before` is the one that it replaces: it is noted as found where the history does not end with it, as
// a hand's edit, or the text of a page that was saved before its history began. Throws store::StorageError.
void note_version(Wiki& wiki, store::WikiStore& store, const std::string& page_id, const PageChange& change,
                  const std::string& text, const std::string& before = {});
// The same for a page that has no file from now on.
void note_removal(Wiki& wiki, store::WikiStore& store, const std::string& page_id, const std::string& client,
                  const std::string& before);

}  // namespace ossilar::workers::wiki
