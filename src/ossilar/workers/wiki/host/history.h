// The history of pages: notes each change of a page file, with who asked for it, and answers what a page was
// before. Versions are kept by the store, the last `[history] versions` of each page.
//
// Whatever writes a row notes the version in the row's transaction: saves (orchestrator.cc), adoptions,
// renamings, removals and migrations (check/). operations/ asks for histories and restores versions.
//
// Thread-safety: any thread; the notes belong to the holder of the write lock.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/host/saving.h"
#include "ossilar/workers/wiki/host/wiki.h"
#include "ossilar/workers/wiki/types.h"

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

struct PageHistory {
  std::string page_id;                       // another than was asked for, if that is a former one
  std::vector<store::PageVersion> versions;  // the newest first, without texts; empty if none is kept
};
PageHistory page_history(Wiki& wiki, const std::string& asked);

// What changed between two versions of a page.
struct VersionComparison {
  std::string page_id;
  store::PageVersion before;  // with its text, as the next
  store::PageVersion after;   // number 0 for a page file that no kept version has
  std::string diff;           // unified, of title and authored text; "" if these are equal
};

// Compares two versions, each named by its number or by a beginning of its name. Without `to` with the page
// as it stands, without `from` from the last version that reads otherwise. An answer with `error` for a
// version or a page that is not kept.
std::variant<VersionComparison, Answer> compare_versions(Wiki& wiki, const std::string& asked,
                                                         const std::optional<std::string>& from,
                                                         const std::optional<std::string>& to);

struct RestoreRequest {
  std::string page_id = {};
  std::string version = {};  // as in compare_versions()
  std::optional<std::string> if_version = {};
  std::string client = {};
};

// Saves the authored text of a version again, with the title that its author chose. The page is as true or as
// stale as that text is today: what it cites, and the sources it rests on, are those of its record.
SaveOutcome restore_page(Wiki& wiki, const RestoreRequest& request, utils::Task& task);

}  // namespace ossilar::workers::wiki
