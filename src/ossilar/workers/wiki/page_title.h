// The title of a page: planned, or chosen by an agent.
#pragma once

#include <optional>
#include <string>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The build cache's key of the title that an agent chose.
inline constexpr const char* AGENT_TITLE_KEY = "agent_title";

// Titles longer than this (in characters) are refused: they stand in lists and link texts.
inline constexpr std::size_t kLongestTitle = 200;

// The title that an agent gave the page at its last save or earlier, or none.
std::optional<std::string> agent_title(const Map* row);

// Settles plan.title for a save: the requested title, or without one the title that an agent gave the page,
// or the planned one. A non-empty result refuses the save: its `error` says why the title cannot be had
// (blank, too long, more than one line, brackets, or the title of another page) and `page_id` names the page.
Answer retitle(PagePlan& plan, const std::optional<std::string>& title, const Plans& plans,
               const store::StoredRows& existing);

}  // namespace ossilar::workers::wiki
