// What a page's history (history.h) tells of a change beside the text.
#pragma once

#include <string>

namespace ossilar::workers::wiki {

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

// Who asked for a change, and what was done. `client` is "" where nobody knows, as of a text that version
// control brought.
struct PageChange {
  std::string client = {};
  std::string action = action::kSaved;
};

}  // namespace ossilar::workers::wiki
