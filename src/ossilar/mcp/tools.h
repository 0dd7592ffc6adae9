// The operations on a wiki as tools of an agent's session. session.cc calls these for `tools/list` and
// `tools/call`, the second on a thread of its pool.
#pragma once

#include <string>

#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

// The result of `tools/list`.
Map list_tools(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);

// The result of `tools/call`: what the operation gave, or a result with `isError` for arguments that do not
// fit and for whatever failed in it. `task` may cancel and watch the call. Throws ProtocolError for a tool
// that does not exist; utils::Cancelled passes.
Map call_tool(workers::wiki::WikiProvider& provider, Revision revision, const Map& params, utils::Task& task);

// What calls with these params must not run beside; "" for those that may run beside any.
std::string serial_key(const Map& params);

}  // namespace ossilar::mcp
