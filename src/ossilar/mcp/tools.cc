// A tool is an operation (operations/operation.h) in the protocol's words. Whatever fails inside one is a
// result with `isError`, never a protocol error: an agent reads results and can correct its call, while
// clients hide protocol errors. Only a call of a tool that does not exist, or with malformed params, is one.
//
// A result holds the same document twice, as structured content and as text: revisions before 2025-06-18 know
// only the text, and later ones ask for it for the sake of older clients. Documents that are long texts would
// fill the wire by that, so they come once (Operation::is_text_once).
#include "ossilar/mcp/tools.h"

#include <algorithm>
#include <vector>

#include "ossilar/mcp/protocol/message.h"
#include "ossilar/mcp/protocol/params.h"
#include "ossilar/operations/operation.h"

namespace ossilar::mcp {
namespace {

using operations::Caller;
using operations::Operation;

const Operation* find_tool(std::string_view name) {
  const auto& all = operations::operations();
  const auto found =
      std::find_if(all.begin(), all.end(), [&](const Operation& tool) { return tool.tool == name; });
  return found == all.end() ? nullptr : &*found;
}

Map annotations_of(const Operation& tool) {
  Map hints{{"title", tool.title}, {"readOnlyHint", tool.reads_only}};
  if (!tool.reads_only) hints["destructiveHint"] = true;  // the text that was there is replaced
  hints["openWorldHint"] = false;
  return hints;
}

Map described(const Operation& tool, Revision revision) {
  Map shown{{"name", tool.tool}};
  if (has_structured_results(revision)) shown["title"] = tool.title;
  shown["description"] = tool.description;
  shown["inputSchema"] = operations::input_schema(tool);
  // A tool with an output schema has to give structured content each time.
  if (has_structured_results(revision) && !tool.is_text_once) shown["outputSchema"] = tool.output_schema;
  if (has_tool_annotations(revision)) shown["annotations"] = annotations_of(tool);
  return shown;
}

// A result before it is put into the protocol's form: the operation's document, and sentences for its reader.
struct Answered {
  Map value;
  std::vector<std::string> notes = {};
};

Map text_block(const std::string& text) { return {{"type", "text"}, {"text", text}}; }

// Whether the tool's output schema has `error`, as that of save_page, whose refusals are answers.
bool admits_errors(const Operation& tool) { return tool.output_schema.at("properties").contains("error"); }

// An error stands in the structured result only where the schema admits it: a client that checks a result
// against the schema would otherwise show its reader the misfit instead of the error.
Map result_of(const Operation& tool, const Answered& given, bool is_structured, Revision revision) {
  const bool failed = given.value.contains("error");
  Map result{{"content", Map::array({text_block(utils::json_text(given.value))})}};
  for (const std::string& note : given.notes) result["content"].push_back(text_block(note));
  if (is_structured && has_structured_results(revision) && (!failed || admits_errors(tool)))
    result["structuredContent"] = given.value;
  if (failed) result["isError"] = true;
  return finished(revision, std::move(result));
}

// Without the arguments that are null: agents write null for what they leave out.
Map without_nulls(const Map& arguments) {
  Map given = Map::object();
  for (const auto& [key, value] : arguments.items()) {
    if (!value.is_null()) given[key] = value;
  }
  return given;
}

Map error_of(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& error) {
    return Map{{"error", error.what()}};
  }
}

// Tells the agent where the text that was not saved is kept (nowhere for ""): as a file, and as a resource
// that is named by the last part of the path. The agent may no longer have the text itself.
std::vector<std::string> notes_on(const std::string& kept) {
  if (kept.empty()) return {};
  return {"Nothing was saved. Your text is kept in " + kept + ", and ossilar://drafts/" +
          kept.substr(kept.rfind('/') + 1) + " reads it. Fix what the error names and call save_page again."};
}

// Opening the wiki is inside the `try`: a repository that was never set up is for the agent to read, too.
// Cancelled is no std::exception and passes.
Answered run(const Operation& tool, workers::wiki::WikiProvider& provider, const Map& arguments,
             const ToolCaller& caller, utils::Task& task) {
  if (const auto fault = operations::misfit(tool, arguments, Caller::session))
    return {Map{{"error", *fault}}};
  if (tool.refuse != nullptr) {
    if (auto refusal = tool.refuse(arguments)) return {*std::move(refusal)};
  }
  try {
    operations::Result result = tool.call({.wiki = *provider.get(),
                                           .arguments = arguments,
                                           .task = task,
                                           .client = caller.client,
                                           .session = caller.session});
    auto notes = std::move(result.notes);
    for (std::string& note : notes_on(result.kept)) notes.push_back(std::move(note));
    return {result.failure ? error_of(result.failure) : std::move(result.value), std::move(notes)};
  } catch (const std::exception& error) {
    return {Map{{"error", error.what()}}};
  }
}

}  // namespace

Map list_tools(workers::wiki::WikiProvider& /*provider*/, Revision revision, const Map& params) {
  if (optional_string(params, "cursor"))
    throw ProtocolError(error_code::kInvalidParams, "params.cursor is unknown: tools/list has only one page");
  Map list = Map::array();
  for (const Operation& tool : operations::operations()) list.push_back(described(tool, revision));
  return finished_for(revision, Map{{"tools", list}}, kListMilliseconds);
}

Map call_tool(workers::wiki::WikiProvider& provider, Revision revision, const Map& params,
              const ToolCaller& caller, utils::Task& task) {
  const std::string name = required_string(params, "name");
  const Map& arguments = optional_object(params, "arguments");
  const Operation* tool = find_tool(name);
  if (tool == nullptr) throw ProtocolError(error_code::kInvalidParams, "there is no tool '" + name + "'");
  const bool is_structured =
      !tool->is_text_once || utils::member(arguments, operations::kStructured) == Map(true);
  return result_of(*tool, run(*tool, provider, without_nulls(arguments), caller, task), is_structured,
                   revision);
}

// Saves of one page run in the order in which they came: of several concurrent drafts of one page only one
// can be committed, and the others would be made again.
std::string serial_key(const Map& params) {
  const Operation* tool = find_tool(utils::string_member(params, "name"));
  if (tool == nullptr || tool->reads_only) return "";
  return "page " + utils::string_member(utils::member(params, "arguments"), "page_id");
}

}  // namespace ossilar::mcp
