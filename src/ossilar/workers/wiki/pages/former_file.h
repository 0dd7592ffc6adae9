// The file that a page file replaced, which utils::atomic_exchange() leaves beside it.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/pages/kept_texts.h"

namespace ossilar::workers::wiki {

// Whether a text is on record elsewhere. It gets the text with line ends normalised, or the bytes where they
// are no text.
using IsKnown = std::function<bool(const std::string& text)>;

// The hash of the page's text as a save stored it, by its row; "" when no save did. A text that a repair or a
// clone took over as it stood is known to its row, and still no author has read it.
std::string saved_hash(const Map* row);

// Removes the file that `page`, the file of `page_id`, replaced, if there is one: when its text is known, it
// goes, and otherwise it is kept in `replaced`, under the name that this gives; "" when nothing had
// to be kept. A file that is open for writing somewhere is kept, whatever it holds by now. The caller holds
// the write lock. Throws utils::Error, with the file where it was.
std::string settle_former(const std::filesystem::path& page, const std::string& page_id,
                          const IsKnown& is_known, const KeptTexts& replaced);

// The files that such settling was cut short before, in `pages` and below, in order.
std::vector<std::filesystem::path> former_files(const std::filesystem::path& pages);

// The page file that the former file `former` lies beside; none when that is gone.
std::optional<std::filesystem::path> page_of_former(const std::filesystem::path& former);

}  // namespace ossilar::workers::wiki
