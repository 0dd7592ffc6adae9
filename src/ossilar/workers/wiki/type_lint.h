// What a page lacks, measured by its page type. Findings are warnings in the answer of a save
// (agent_save.cc); none keeps a page from being saved.
//
// Threads: a function without state, to be called from any thread. Failures: none; a key that the row lacks
// counts as empty.
#pragma once

#include <string>
#include <vector>

#include "ossilar/utils/json.h"

namespace ossilar::workers::wiki {

// Bytes of a page file, generated part included. A larger page is hard to read in one sitting: 64 KiB are
// some 16,000 tokens, at four bytes a token.
inline constexpr std::size_t kLargePage = std::size_t{64} * 1024;

// The findings on the page with the text `markdown` and the row `row` (keys `page_id`, `level`, `title`,
// `summary`, and `build_cache` with `outline`). Each has `kind` ("no-summary", "missing-section",
// "title-heading", "open-block", "page-size") and `detail`, a sentence that says what to do.
std::vector<Map> page_type_findings(const Map& row, const std::string& markdown);

}  // namespace ossilar::workers::wiki
