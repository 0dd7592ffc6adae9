#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The number of words of prose in `body`: what is neither code block nor HTML nor citation.
std::int64_t prose_words(std::string_view body);

// A warning when `words` lies outside the budget of the page type, else none.
std::optional<std::string> word_budget_warning(const PageType& type, std::int64_t words);

}  // namespace ossilar::workers::wiki
