// The tools of an agent session.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/utils/json.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

struct ToolResult {
  Map value;                       // fits the tool's output schema, or has `error`
  std::vector<std::string> notes;  // for the reader of the result, beside it
};

struct Tool {
  std::string_view name;
  std::string_view title;
  std::string_view description;
  bool reads_only = true;
  Map input_schema;
  Map output_schema;  // null: results are text alone
  ToolResult (*call)(workers::wiki::Wiki& wiki, const Map& arguments, utils::Task& task);
};

inline constexpr std::string_view kSavePage = "save_page";

// In the order in which clients list them.
const std::vector<Tool>& tools();

// The result of `tools/list`.
Map list_tools(workers::wiki::WikiProvider& provider, Revision revision, const Map& params);

// The result of `tools/call`: what the tool gave, or a result with `isError` for arguments that do not fit
// and for whatever failed in the tool. `task` may cancel and watch the call. Throws ProtocolError for a tool
// that does not exist; utils::Cancelled passes.
Map call_tool(workers::wiki::WikiProvider& provider, Revision revision, const Map& params, utils::Task& task);

// What calls with these params must not run beside; "" for those that may run beside any.
std::string serial_key(const Map& params);

// The tools, each in a file of its own group.
Tool list_pages_tool();
Tool page_context_tool();
Tool read_page_tool();
Tool save_page_tool();
Tool search_wiki_tool();
Tool wiki_status_tool();

}  // namespace ossilar::mcp
