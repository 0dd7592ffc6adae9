// Words for completions that only the wiki at hand knows: ids of its pages, headings of a page.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "ossilar/cli/manuals/completion.h"

namespace ossilar::cli {

// The pages of the plan, and stored ones that no plan has any more, each with its title. Somebody waits at a
// keyboard: where the plan takes more than half a second, as after a large change to the sources, the stored
// pages alone are given.
//
// Throws what opening the wiki throws. May leave a thread that still indexes: the process must end by
// std::_Exit().
std::vector<Candidate> page_words(const std::filesystem::path& root);

// The `##` headings of what the author of the page wrote; none when it is not stored. Throws utils::Error.
std::vector<Candidate> section_words(const std::filesystem::path& root, const std::string& page_id);

}  // namespace ossilar::cli
