// What can be asked of a wiki. Each operation is described once: the shell makes a command of it
// (cli/app.cc), an agent's session a tool (mcp/tools.cc), and both answer with the same document.
//
// Each operation is a file of this folder. To add one, write its file, list it in operation.cc, and give the
// shell a view of it (cli/views.cc). To change an argument, a text or a schema, change it in its file alone.
//
// Threads: descriptions are constant once made, and calls may run concurrently on one wiki. Failure: an
// operation that only reads leaves nothing behind; what a failed save leaves is in docs/design.md.
#pragma once

#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/utils/json.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::operations {

// Who asks. The shell has just brought index and plan up to date, and prints everything. A session scans the
// sources again, because they change between its calls, and gets what is long in portions: clients of agents
// cut a result at some 25,000 tokens.
enum class Caller { shell, session };

struct Asked {
  workers::wiki::Wiki& wiki;
  const Map& arguments;  // by name; misfit() has found nothing wrong with them
  utils::Task& task;     // cancels and watches the call
  Caller caller = Caller::session;
  std::string client = {};  // who asks, for the history of what is written
  // Names the session, for claims of pages; "" in the shell, which claims none.
  std::string session = {};
};

struct Result {
  Map value;  // fits the output schema, or has `error` as its first key
  // Where the text that was not saved is kept, relative to the repository's root; "" when nothing is kept.
  std::string kept = {};
  // What a caller is told beside the document: in a session a text each, in the shell a line.
  std::vector<std::string> notes = {};
  // A failure that is returned and not thrown, so that `kept` can come with it; `value` is null then.
  std::exception_ptr failure = {};
};

struct Argument {
  std::string_view name;  // in Asked::arguments, and in a session
  // In the shell: "--section" and "-n" are options, "PAGE" is positional; "" when the shell does not have it.
  std::string_view option;
  std::string_view value;  // how the shell's help names the value: "HEADING"
  Map schema;              // JSON Schema of what fits; its description is the help in both
  bool required = false;
  bool in_session = true;
  // In the shell an option without a value, which sets the argument to this; null for one with a value.
  Map flag = {};
  // In the shell the name of a file that holds the value; without it, standard input does.
  bool from_file = false;
  // Whether the other arguments leave nothing for this one to say, so that no standard input is read for it;
  // null: never.
  bool (*is_needless)(const Map& arguments) = nullptr;
};

struct Operation {
  std::string_view command;      // in the shell: "plan"; "" for what a session alone can ask
  std::string_view tool;         // in a session: "list_pages"
  std::string_view title;        // of the tool, for people who see a list of them
  std::string_view does;         // one line for the shell's help and the README
  std::string_view description;  // for an agent that chooses among tools
  std::string_view example;      // command lines of the shell, one a line
  std::vector<Argument> arguments;
  Map output_schema;
  std::string more = {};  // below the examples in the shell's help
  bool reads_only = true;
  // Its documents are long texts: a session gives them as text alone, unless structured_argument() asks for
  // them as structured content too.
  bool is_text_once = false;
  // Refuses what the arguments alone decide; null when nothing can be refused so. Callers ask it before the
  // wiki is brought up to date, and call() may rely on it.
  std::optional<Map> (*refuse)(const Map& arguments) = nullptr;
  // Needs arguments that misfit() and refuse() have passed. Throws what the wiki throws; utils::Cancelled
  // passes.
  Result (*call)(const Asked& asked);
};

// All operations, in the order in which help and tool list show them. Valid for the life of the program.
const std::vector<Operation>& operations();

// The JSON Schema of a session's arguments: an object without further properties.
Map input_schema(const Operation& operation);

// What is wrong with `arguments`, an object, in words for the caller; none when they fit. Of JSON Schema it
// knows what the arguments' schemas use: `type` string, integer, boolean, or array with `items` of these,
// `enum`, `minimum`, `maximum`, and `minLength` 1.
std::optional<std::string> misfit(const Operation& operation, const Map& arguments, Caller caller);

// The argument, none where it is missing: an empty text is not the same.
std::optional<std::string> optional_text(const Map& arguments, const char* name);

// With which a client asks for structured content where a result is text alone.
Argument structured_argument();
inline constexpr const char* kStructured = "structured";

// The id of a page, which most operations need.
Argument page_argument();

}  // namespace ossilar::operations
