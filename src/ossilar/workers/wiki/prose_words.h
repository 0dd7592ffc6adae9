// How long a page is, in words of prose, and whether that suits its type.
//
// A save answers with both (agent_save.cc); citing/section_cache.cc counts words by section.
//
// Threads: functions without state, to be called from any thread. Failures: none; every text has a count.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The number of words of prose in `body`. Code blocks, HTML and citations do not count; code spans, headings
// and tables do. A word is a run without white space that has a letter, a digit or a character beyond ASCII.
std::int64_t prose_words(std::string_view body);

// A warning when `words` is outside of the budget of the page type, whose ends are included; else none.
std::optional<std::string> word_budget_warning(const PageType& type, std::int64_t words);

}  // namespace ossilar::workers::wiki
