// The title of a page: planned, or chosen by an agent.
//
// A save settles it twice, in its draft and again under the write lock (agent_save.cc); asking/wiki_reader.cc
// settles it for the context of a page. The other callers ask agent_title() to carry a chosen title on.
//
// Threads: functions without state; the plan handed in belongs to the caller. Failures: a title that cannot
// be had is the returned answer, and the plan's title then stays as it was.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The build cache's key of the title that an agent chose.
inline constexpr const char* AGENT_TITLE_KEY = "agent_title";

// Titles of more characters (code points) than this are refused: they are shown in lists and link texts.
inline constexpr std::size_t kLongestTitle = 200;

// Why `title`, without blanks around it, cannot be a page's, in words that follow "it": "is blank". "" when
// it can.
std::string title_fault(std::string_view title);

// The title that an agent gave the page at its last save or earlier, by the page's row (null: no row); none
// when the page goes by its planned title.
std::optional<std::string> agent_title(const Map* row);

// Settles plan.title for a save: the requested title without blanks around it; without one, or with an empty
// one, the title that an agent gave the page, else the planned one, which is not checked. A non-empty result
// refuses the save: `error` says why the title cannot be had (blank, too long, more than one line, brackets,
// control characters, or the title of another page), `page_id` names the page.
Answer retitle(PagePlan& plan, const std::optional<std::string>& title, const Plans& plans,
               const store::StoredRows& existing);

}  // namespace ossilar::workers::wiki
