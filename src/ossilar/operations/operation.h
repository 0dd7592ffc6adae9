// What can be asked of a wiki, each described once: the shell makes a command of it (cli/app.cc), an agent's
// session a tool (mcp/tools.cc), and what both give is the same document.
//
// Each operation is a file of this folder. To add one, write its file, declare it below and list it in
// operations(); to change an argument, a text or a schema, change it there and nowhere else.
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

// Who asks. The shell has just brought index and plan up to date, and its reader gets all there is. A session
// looks at the sources again, as they change between calls, and gets portions of what is long: its client
// cuts results at some 25,000 tokens.
enum class Caller { shell, session };

struct Asked {
  workers::wiki::Wiki& wiki;
  const Map& arguments;  // by name; misfit() has found nothing wrong with them
  utils::Task& task;
  Caller caller = Caller::session;
  utils::Progress embedding = {};  // of passages that have to be embedded first
};

struct Result {
  Map value;              // fits the output schema, or has `error` as its first key
  std::string kept = {};  // the text that was not saved, as a path relative to the repository's root; or ""
  std::exception_ptr failure = {};  // what was no answer: `value` is null then
};

struct Argument {
  std::string_view name;  // in Asked::arguments, and in a session
  std::string_view
      option;  // in the shell: "PAGE" stands by its place, "--section" and "-n" are options; "" for none
  std::string_view value;  // how the shell's help names the value: "HEADING"
  Map schema;              // JSON Schema of what fits; its description is the help in both
  bool required = false;
  bool in_session = true;
  // In the shell an option without a value, which sets the argument to this; null for one with a value.
  Map flag = {};
  // In the shell the name of a file that holds the value; without it, standard input does.
  bool from_file = false;
};

struct Operation {
  std::string_view command;      // in the shell: "plan"
  std::string_view tool;         // in a session: "list_pages"
  std::string_view title;        // of the tool, for people who see a list of them
  std::string_view does;         // one line for the shell's help and the README
  std::string_view description;  // for an agent that chooses among tools
  std::string_view example;      // command lines of the shell, one a line
  std::vector<Argument> arguments;
  Map output_schema;
  bool reads_only = true;
  // What can be refused by the arguments alone, before the wiki is brought up to date; null when nothing can.
  std::optional<Map> (*refuse)(const Map& arguments) = nullptr;
  // Throws what the wiki throws; utils::Cancelled passes.
  Result (*call)(const Asked& asked);
};

// In the order in which both list them.
const std::vector<Operation>& operations();

// JSON Schema of the arguments that a session has.
Map input_schema(const Operation& operation);

// What is wrong with `arguments`, in words for the caller; none when they fit. Of JSON Schema it knows what
// the arguments' schemas use: `type` string, integer or boolean, `enum`, `minimum`, `maximum`, `minLength`.
std::optional<std::string> misfit(const Operation& operation, const Map& arguments, Caller caller);

Operation list_pages();
Operation page_context();
Operation read_page();
Operation save_page();
Operation search_wiki();
Operation wiki_status();

// The id of a page, which most operations need.
Argument page_argument();

}  // namespace ossilar::operations
