// The page files below `wiki/pages`, and the pages that they are.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace ossilar::workers::wiki {

// The Markdown files under `pages`, in order; symbolic links are left out.
std::vector<std::filesystem::path> page_files(const std::filesystem::path& pages);

// The page id of a file below the pages directory.
std::string page_id_of(const std::filesystem::path& pages, const std::filesystem::path& file);

}  // namespace ossilar::workers::wiki
