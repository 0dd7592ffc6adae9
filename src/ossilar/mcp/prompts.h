// Prompts: what to tell an agent that is to write or renew a page.
#pragma once

#include "ossilar/mcp/revision.h"
#include "ossilar/mcp/wiki_provider.h"
#include "ossilar/utils/json.h"

namespace ossilar::mcp {

inline constexpr const char* kWritePage = "write-page";        // page_id, section
inline constexpr const char* kRefreshStale = "refresh-stale";  // page_id

// The results of `prompts/list` and `prompts/get`. Throw ProtocolError for a prompt that does not exist,
// arguments that do not fit, and a page that there is none of.
Map list_prompts(WikiProvider& provider, Revision revision, const Map& params);
Map get_prompt(WikiProvider& provider, Revision revision, const Map& params);

// The result of `completion/complete`: page ids and section headings.
Map complete(WikiProvider& provider, Revision revision, const Map& params);

}  // namespace ossilar::mcp
