#include "ossilar/mcp/tools/tools.h"

#include <algorithm>

#include "ossilar/mcp/protocol/message.h"
#include "ossilar/mcp/protocol/params.h"

namespace ossilar::mcp {
namespace {

// The tools do not change while the program runs; a client may keep the list for an hour.
constexpr int kListMilliseconds = 60 * 60 * 1000;

const Tool* find_tool(std::string_view name) {
  const auto found =
      std::find_if(tools().begin(), tools().end(), [&](const Tool& tool) { return tool.name == name; });
  return found == tools().end() ? nullptr : &*found;
}

Map annotations_of(const Tool& tool) {
  Map hints{{"title", tool.title}, {"readOnlyHint", tool.reads_only}};
  if (!tool.reads_only) hints["destructiveHint"] = true;  // the text that was there is replaced
  hints["openWorldHint"] = false;
  return hints;
}

Map described(const Tool& tool, Revision revision) {
  Map shown{{"name", tool.name}};
  if (has_structured_results(revision)) shown["title"] = tool.title;
  shown["description"] = tool.description;
  shown["inputSchema"] = tool.input_schema;
  if (has_structured_results(revision)) shown["outputSchema"] = tool.output_schema;
  if (has_tool_annotations(revision)) shown["annotations"] = annotations_of(tool);
  return shown;
}

Map text_block(const std::string& text) { return {{"type", "text"}, {"text", text}}; }

bool admits_errors(const Tool& tool) { return tool.output_schema.at("properties").contains("error"); }

// An error stands in the structured result only where the schema admits it: a client that checks a result
// against the schema would otherwise show its reader the misfit instead of the error.
Map result_of(const Tool& tool, const ToolResult& given, Revision revision) {
  const bool failed = given.value.contains("error");
  Map result{{"content", Map::array({text_block(utils::json_text(given.value))})}};
  for (const std::string& note : given.notes) result["content"].push_back(text_block(note));
  if (has_structured_results(revision) && (!failed || admits_errors(tool)))
    result["structuredContent"] = given.value;
  if (failed) result["isError"] = true;
  return finished(revision, std::move(result));
}

// Agents write null for what they leave out.
Map without_nulls(const Map& arguments) {
  Map given = Map::object();
  for (const auto& [key, value] : arguments.items()) {
    if (!value.is_null()) given[key] = value;
  }
  return given;
}

ToolResult run(const Tool& tool, workers::wiki::WikiProvider& provider, const Map& arguments,
               utils::Task& task) {
  if (const auto fault = misfit(tool.input_schema, arguments)) return {Map{{"error", *fault}}, {}};
  try {
    return tool.call(*provider.get(), arguments, task);
  } catch (const std::exception& error) {
    return {Map{{"error", error.what()}}, {}};
  }
}

}  // namespace

const std::vector<Tool>& tools() {
  static const std::vector<Tool> all{list_pages_tool(), page_context_tool(), read_page_tool(),
                                     save_page_tool(),  wiki_status_tool(),  search_wiki_tool()};
  return all;
}

Map list_tools(workers::wiki::WikiProvider& /*provider*/, Revision revision, const Map& params) {
  if (optional_string(params, "cursor"))
    throw ProtocolError(error_code::kInvalidParams, "the list of tools has one page and no cursors");
  Map list = Map::array();
  for (const Tool& tool : tools()) list.push_back(described(tool, revision));
  return finished_for(revision, Map{{"tools", list}}, kListMilliseconds);
}

Map call_tool(workers::wiki::WikiProvider& provider, Revision revision, const Map& params,
              utils::Task& task) {
  const std::string name = required_string(params, "name");
  const Map& arguments = optional_object(params, "arguments");
  const Tool* tool = find_tool(name);
  if (tool == nullptr) throw ProtocolError(error_code::kInvalidParams, "there is no tool '" + name + "'");
  return result_of(*tool, run(*tool, provider, without_nulls(arguments), task), revision);
}

std::string serial_key(const Map& params) {
  if (utils::string_member(params, "name") != kSavePage) return "";
  return "page " + utils::string_member(utils::member(params, "arguments"), "page_id");
}

}  // namespace ossilar::mcp
