// The operations on a wiki as tools of an agent's session. session.cc calls these for `tools/list` and
// `tools/call`, both on a thread of its pool, and serial_key() on the thread that reads lines.
//
// Nothing is kept between calls. Failure: what an operation leaves is its own to say
// (operations/operation.h).
#pragma once

#include <string>

#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

struct ToolCaller {
  std::string client;   // the client's name, for the history of what it writes
  std::string session;  // names the session, for claims of pages
};

// The result of `tools/list`: all tools in one portion. Throws ProtocolError for a cursor. Does not use the
// wiki.
Map list_tools(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);

// The result of `tools/call`: what the operation gave, or a result with `isError` for arguments that do not
// fit and for whatever failed in it. `task` may cancel and watch the call. Throws ProtocolError for a tool
// that does not exist; utils::Cancelled passes.
Map call_tool(workers::wiki::WikiProvider& provider, Revision revision, const Map& params,
              const ToolCaller& caller, utils::Task& task);

// The scheduler's key for a call with these params: calls with the same key run one after the other. "" for a
// call that may run beside any. Never throws, also for params that call_tool() refuses.
std::string serial_key(const Map& params);

}  // namespace ossilar::mcp
