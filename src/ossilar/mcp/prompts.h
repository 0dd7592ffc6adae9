// Prompts: what to tell an agent that is to write or renew a page.
#pragma once

#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

inline constexpr const char* kWritePage = "write-page";        // page_id, section
inline constexpr const char* kRefreshStale = "refresh-stale";  // page_id

// The results of `prompts/list` and `prompts/get`. Throw ProtocolError for a prompt that does not exist,
// arguments that do not fit, and a page that there is none of.
Map list_prompts(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);
Map get_prompt(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);

// The result of `completion/complete`: page ids and section headings.
Map complete(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);

}  // namespace ossilar::mcp
