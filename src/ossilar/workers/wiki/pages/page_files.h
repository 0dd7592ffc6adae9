// The page files below `wiki/pages`, and the page ids that belong to them. check/arrivals.cc finds the pages
// of a fresh clone with it, check/repair.cc the page of a former file.
//
// Thread-safety: no state, any thread may call.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace ossilar::workers::wiki {

// The regular `.md` files under `pages`, sorted; symbolic links are left out. A folder that cannot be read
// ends the list early without an error, so a file that is missing here need not be gone.
std::vector<std::filesystem::path> page_files(const std::filesystem::path& pages);

// The page id of `file`, which lies below `pages`: its path without the ending. It need not be a valid id, as
// files may have any names.
std::string page_id_of(const std::filesystem::path& pages, const std::filesystem::path& file);

}  // namespace ossilar::workers::wiki
