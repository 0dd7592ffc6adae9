// Former files: what a page file replaced. utils::atomic_exchange() leaves it beside the page under a hidden
// name. Somebody may have edited it between the save's last look and the swap, so its text is checked before
// it goes.
//
// Callers: each save before and after its swap (host/orchestrator.cc), the migration (check/older_format.cc),
// the repair (check/repair.cc) and files of other machines (host/shared_files.cc) settle former files;
// check/inspection.cc reports those that are left.
//
// Thread-safety: there is no state, so any thread may call. Only settle_former() needs the write lock.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/pages/kept_texts.h"

namespace ossilar::workers::wiki {

// Whether a text is stored elsewhere, so that this copy of it may go. Its argument is the text without a byte
// order mark and with line ends normalised, as hashes in rows are of that; the raw bytes if they are not
// UTF-8.
using IsKnown = std::function<bool(const std::string& text)>;

// The hash of the page's text if a save stored it, taken from its row; "" otherwise and for a null `row`. A
// repair also writes the hash of a hand's text to the row (with the model "adopted"). Such a text does not
// count, as its file may be the only copy.
std::string saved_hash(const Map* row);

// Clears away the former file of `page`, which is the file of `page_id`. A known text is removed; any other
// is moved to `replaced`. A file that some process has open for writing is moved in any case, as its text may
// still change. Gives the name in `replaced`, "" if nothing was kept or there is no former file.
//
// The caller holds the write lock: another save would leave its own former file under the same name. Throws
// utils::Error; the text is then still beside the page, or already in `replaced` but perhaps not on disk.
std::string settle_former(const std::filesystem::path& page, const std::string& page_id,
                          const IsKnown& is_known, const KeptTexts& replaced);

// The former files in `pages` and below, sorted. Each is left from a save that was killed or could not put it
// away. A folder that cannot be read ends the list early, without an error.
std::vector<std::filesystem::path> former_files(const std::filesystem::path& pages);

// The page file that `former` belongs to; none if that page file is gone.
std::optional<std::filesystem::path> page_of_former(const std::filesystem::path& former);

}  // namespace ossilar::workers::wiki
