// Prompts, which tell an agent how to write or renew a page, and the completion of their arguments
// (completion.cc). session.cc calls these for the methods of these names.
//
// Threads: those of the session's pool; nothing is kept between calls. These only read, so a failure leaves
// nothing.
#pragma once

#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

// The names of the prompts, and their arguments.
inline constexpr const char* kWritePage = "write-page";        // page_id, section
inline constexpr const char* kRefreshStale = "refresh-stale";  // page_id
inline constexpr const char* kWriteWiki = "write-wiki";

// The results of `prompts/list` and `prompts/get`. They throw ProtocolError for a prompt that does not exist,
// for arguments that do not fit, and for a page that is not planned; list_prompts() does not use the wiki.
Map list_prompts(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);
Map get_prompt(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);

// The result of `completion/complete`: page ids and section headings, for prompts and for resource templates.
// Throws ProtocolError for a prompt or template that does not exist and for params that do not fit.
Map complete(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);

}  // namespace ossilar::mcp
