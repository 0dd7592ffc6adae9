// The pages that are lists: the home page, the state of the wiki, the answer to a search, and short messages.
//
// Thread-safety: any thread. Failures: what the store throws in a search passes.
#pragma once

#include <string>

#include "ossilar/utils/task.h"
#include "ossilar/web/frame.h"

namespace ossilar::web {

std::string home_document(const Asked& asked);

// How the pages stand and why, when the wiki was last written, and how much of the sources it covers.
std::string state_document(const Asked& asked);

// The passages that answer `query`, which may be empty. In an export the page's script searches.
std::string search_document(const Asked& asked, const std::string& query, const utils::Task& task);
// The same for the search as one types: {"hits": [{"title", "section", "url", "excerpt"}]}, urls relative to
// the site's root; or {"error"}.
std::string search_json(const Site& site, const std::string& query, const utils::Task& task);

// A page that says one thing, such as that there is no such page.
std::string message_document(const Asked& asked, const std::string& title, const std::string& message);

}  // namespace ossilar::web
