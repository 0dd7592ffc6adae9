// What is worth saying about a page against its page type. Findings are warnings; none keeps a page from
// being saved.
#pragma once

#include <string>
#include <vector>

#include "ossilar/utils/json.h"

namespace ossilar::workers::wiki {

// A page of more bytes than this is hard to read in one sitting and exceeds what many agents take in at once.
inline constexpr std::size_t kLargePage = std::size_t{64} * 1024;

// The findings on the page that `row` (keys `page_id`, `level`, `title`, `summary`, `build_cache`.`outline`)
// and `markdown` stand for, each with `kind` ("missing-section", "no-summary", "title-heading", "open-block",
// "page-size") and `detail`.
std::vector<Map> page_type_findings(const Map& row, const std::string& markdown);

}  // namespace ossilar::workers::wiki
