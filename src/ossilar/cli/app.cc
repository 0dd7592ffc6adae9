// The commands and their options are made from the descriptions from which sessions make their tools
// (operations/operation.h), so help, checks and names cannot drift apart. Only what is no question
// to a wiki, such as init or serve, is written out here.
//
// The parser only notes the command, and run() calls it when all arguments are read. If a callback ran the
// command, its exceptions would pass through the parser, and the log sink and Output would have to be made
// during the parsing.
#include "ossilar/cli/app.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ossilar/cli/client_setup.h"
#include "ossilar/cli/commands.h"
#include "ossilar/cli/log_sink.h"
#include "ossilar/cli/manuals/grammar.h"
#include "ossilar/cli/manuals/shell_scripts.h"
#include "ossilar/cli/self.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/text.h"

namespace ossilar::cli {
namespace {

using Command = std::function<int(Output&)>;

constexpr std::size_t kLongestName = 30;  // bytes of a word that is compared with commands

struct Arguments {
  Place place;
  bool json = false;
  bool version = false;
  ColorChoice color = ColorChoice::automatic;
  InitArguments init;
  McpArguments mcp;
  ServeArguments serve;
  ExportArguments exported;
  StoreCopyArguments store_copy;
  // Arguments of operations, by command. A std::map, because the callbacks of the parser keep references to
  // its values while more commands are added.
  std::map<std::string, Map> given;
  std::string action;              // of `store`
  std::string shell;               // of `completion`
  std::vector<std::string> words;  // of `complete`
  std::string folder;              // of `generate`
  utils::LogSink log;
  Command command;
};

// `lines` with every line but the first indented: the first follows an indentation in the footer.
std::string indented(std::string_view lines) {
  std::string text(lines);
  for (std::size_t at = text.find('\n'); at != text.npos; at = text.find('\n', at + 1))
    text.insert(at + 1, "  ");
  return text;
}

// Adds a command whose parsing only notes that it was chosen. `example` holds command lines, one a line;
// `more` is printed below them in the help.
CLI::App* add_command(CLI::App& app, Arguments& arguments, std::string_view name, std::string_view does,
                      std::string_view example, Command command, const std::string& more = "") {
  CLI::App* added = app.add_subcommand(std::string(name), std::string(does));
  added->footer("Example:\n  " + indented(example) + (more.empty() ? "" : "\n\n" + more));
  added->callback([&arguments, command = std::move(command)] { arguments.command = command; });
  return added;
}

void add_globals(CLI::App& app, Arguments& arguments) {
  static const std::map<std::string, ColorChoice> kColors{
      {"auto", ColorChoice::automatic}, {"always", ColorChoice::always}, {"never", ColorChoice::never}};
  app.add_flag("--version", arguments.version,
               "Print the version; with --json also what it was built with and reads");
  app.add_option("--repo", arguments.place.repo,
                 "The repository, or a folder in it (default: the current folder)")
      ->type_name("DIR");
  app.add_flag("--json", arguments.json, "Print exactly one JSON document");
  // option_text(): without it the help would list the choices a second time, from the check.
  app.add_option_function<std::string>(
         "--color", [&arguments](const std::string& when) { arguments.color = kColors.at(when); },
         "auto, always or never; NO_COLOR is respected")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->type_name("WHEN")
      ->option_text("WHEN");
}

void add_init_command(CLI::App& app, Arguments& arguments) {
  auto* init = add_command(
      app, arguments, "init", "Set up a wiki here: create its files, index the source, adopt committed pages",
      "ossilar init\nossilar init --client claude-code --client vscode\nossilar init --hook",
      [&](Output& output) { return run_init(arguments.place, arguments.init, output); });
  // allow_extra_args(false): a list would otherwise take every word that follows, and not one after each
  // --client. option_text(): as with --color.
  init->add_option("--client", arguments.init.clients,
                   "Set up this agent's client to run ossilar here; may be given several times: " +
                       utils::join(client_names(), ", "))
      ->check(CLI::IsMember(client_names()))
      ->allow_extra_args(false)
      ->type_name("NAME")
      ->option_text("NAME");
  init->add_flag("--hook", arguments.init.hook,
                 "Write a git hook that follows moved citations before each commit and names stale pages");
}

// The help of an argument, made from its schema: the description with a capital letter (in JSON it begins in
// lower case), the choices, the bounds and the default.
std::string help_of(const operations::Argument& argument) {
  std::string help = utils::string_member(argument.schema, "description");
  help.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(help.front())));
  if (argument.schema.contains("enum"))
    help += ": " + utils::join(argument.schema.at("enum").get<std::vector<std::string>>(), ", ");
  if (argument.schema.contains("minimum")) {
    help += ", " + utils::text_form(argument.schema.at("minimum")) + " to " +
            utils::text_form(argument.schema.at("maximum"));
  }
  if (argument.schema.contains("default"))
    help += " (default: " + utils::text_form(argument.schema.at("default")) + ")";
  if (argument.from_file) help += " (default: standard input)";
  return help;
}

// Lets completions know the words that fit (manuals/grammar.h). It accepts all others too: misfit() refuses
// them, in the same words as in a session. option_text(): without it the help would list the words twice.
void offer_choices(CLI::Option& option, const operations::Argument& argument) {
  if (!argument.schema.contains("enum")) return;
  const auto words = argument.schema.at("enum").get<std::vector<std::string>>();
  option.option_text(argument.value.empty() ? "TEXT" : std::string(argument.value));
  option.check(
      CLI::Validator([](std::string&) { return std::string(); }, "{" + utils::join(words, ",") + "}"));
}

// Adds the argument as an option, a flag or a positional, as its name in the shell says. The callbacks write
// into `given` during the parsing, long after this returns: it must be the operation's entry in
// Arguments::given.
void add_argument(CLI::App& command, const operations::Argument& argument, Map& given) {
  const std::string option(argument.option);
  const std::string name(argument.name);
  if (!argument.flag.is_null()) {
    command.add_flag_callback(
        option, [&given, name, value = argument.flag] { given[name] = value; }, help_of(argument));
    return;
  }
  CLI::Option* added = nullptr;
  if (argument.schema.contains("items")) {
    const Map& choices = utils::member(argument.schema.at("items"), "enum");
    // allow_extra_args(false) and option_text(): as with --client.
    added = command
                .add_option_function<std::vector<std::string>>(
                    option, [&given, name](const std::vector<std::string>& values) { given[name] = values; },
                    help_of(argument) + "; may be given several times")
                ->allow_extra_args(false)
                ->option_text(std::string(argument.value));
    if (!choices.is_null()) added->check(CLI::IsMember(choices.get<std::vector<std::string>>()));
  } else if (argument.schema.at("type") == "integer") {
    added = command.add_option_function<std::int64_t>(
        option, [&given, name](std::int64_t value) { given[name] = value; }, help_of(argument));
  } else {
    added = command.add_option_function<std::string>(
        option, [&given, name](const std::string& value) { given[name] = value; }, help_of(argument));
  }
  if (!argument.value.empty()) added->type_name(std::string(argument.value));
  offer_choices(*added, argument);
  // A file may be left out: the value then comes from standard input (run_operation.cc).
  added->required(argument.required && !argument.from_file);
}

void add_operation(CLI::App& app, Arguments& arguments, const operations::Operation& operation) {
  Map& given = arguments.given[std::string(operation.command)];
  given = Map::object();
  CLI::App* command = add_command(
      app, arguments, operation.command, operation.does, operation.example,
      [&arguments, &operation, &given](Output& output) {
        return operation.command == "check" ? run_check(arguments.place, given, output)
                                            : run_operation(operation, arguments.place, given, output);
      },
      operation.more);
  for (const operations::Argument& argument : operation.arguments)
    if (!argument.option.empty()) add_argument(*command, argument, given);
}

void add_mcp_command(CLI::App& app, Arguments& arguments) {
  auto* mcp = add_command(
      app, arguments, "mcp",
      "Serve an agent over the Model Context Protocol on standard input and output, or many over HTTP",
      "ossilar --repo . mcp\nossilar mcp --http\nossilar mcp --http 0.0.0.0:8765 --token-file "
      "~/.ossilar-token",
      [&](Output& output) {
        if (arguments.mcp.http) return run_mcp_http(arguments.place, arguments.mcp, arguments.log, output);
        return run_mcp(arguments.place, arguments.log);
      },
      "With --http the endpoint is /mcp; /healthz and /metrics are beside it. An address that other "
      "machines\n"
      "reach needs --token-file, and a proxy in front of it that does TLS.");
  mcp->add_option_function<std::string>(
         "--http",
         [&arguments](const std::string& where) {
           arguments.mcp.http = true;
           arguments.mcp.listening = where;
         },
         "Serve over HTTP, at this address and port (default: 127.0.0.1:8765)")
      ->expected(0, 1)
      ->default_str("")
      ->type_name("ADDR:PORT")
      ->option_text("[ADDR:PORT]");
  mcp->add_option("--token-file", arguments.mcp.token_file,
                  "A file that holds the token which clients must send: Authorization: Bearer TOKEN")
      ->type_name("FILE")
      ->option_text("FILE");
}

void add_serve_command(CLI::App& app, Arguments& arguments) {
  auto* serve = add_command(
      app, arguments, "serve", "Show the wiki in a browser, live, on this machine alone",
      "ossilar serve --open\nossilar serve --port 0",
      [&](Output& output) { return run_serve(arguments.place, arguments.serve, output); },
      "Pages follow saves and changed sources while they are open. Nothing is loaded from a network.");
  serve->add_option("--port", arguments.serve.port, "The port; 0 for any that is free (default: 8411)")
      ->type_name("N")
      ->option_text("N");
  serve->add_flag("--open", arguments.serve.open, "Open it in the browser");
}

void add_export_command(CLI::App& app, Arguments& arguments) {
  auto* command = add_command(
      app, arguments, "export", "Write the wiki as web pages that need no server",
      "ossilar export ../site\nossilar export ../site --base-url https://example.org/wiki/ --sources link",
      [&](Output& output) { return run_export(arguments.place, arguments.exported, output); },
      "The folder must be empty or hold a former export. Files that are the same are left alone, and files\n"
      "of a former export that are no longer part of it are removed. Source files that pages cite are part\n"
      "of the export unless --sources says link (to the forge that `origin` names, at the commit) or none.");
  command->add_option("DIR", arguments.exported.folder, "The folder to write into")->required();
  command
      ->add_option("--base-url", arguments.exported.base_url,
                   "Where the pages will stand; adds a sitemap and canonical links")
      ->type_name("URL");
  command
      ->add_option("--sources", arguments.exported.sources,
                   "What citations lead to: link, embed or none (default: embed)")
      ->check(CLI::IsMember({"link", "embed", "none"}))
      ->type_name("HOW")
      ->option_text("HOW");
}

// A command of two words: completions, manual and help see `store` with the action as its first argument.
void add_store_command(CLI::App& app, Arguments& arguments) {
  auto* command = add_command(
      app, arguments, "store", "Copy the wiki between this machine's database and a shared one",
      "ossilar store copy local postgresql://wiki@db.example/wiki\n"
      "ossilar store copy postgresql://wiki@db.example/wiki local",
      [&](Output& output) { return run_store_copy(arguments.place, arguments.store_copy, output); },
      "All branches with their history, each page compared afterwards. Run it again after an interruption:\n"
      "it copies what is missing. A database that holds another wiki is refused. Passwords come from\n"
      "~/.pgpass or PGPASSWORD.");
  command->add_option("ACTION", arguments.action, "copy")
      ->check(CLI::IsMember({"copy"}))
      ->option_text(" ")
      ->required();
  command->add_option("FROM", arguments.store_copy.from, "local (.ossilar/index.db) or postgresql://...")
      ->required();
  command->add_option("TO", arguments.store_copy.to, "The same for the database that is copied into")
      ->required();
}

void add_doctor_command(CLI::App& app, Arguments& arguments) {
  add_command(
      app, arguments, "doctor", "Say what is missing or odd on this machine, and how to mend it",
      "ossilar doctor", [&](Output& output) { return run_doctor(arguments.place, output); },
      "Exit code 1 when something is odd.");
}

void add_own_commands(CLI::App& app, Arguments& arguments) {
  std::vector<std::string> names;
  names.reserve(shells().size());
  for (const Shell& shell : shells()) names.emplace_back(shell.name);
  add_command(
      app, arguments, "completion", "Print the script that makes a shell complete commands and pages",
      "source <(ossilar completion bash)\nossilar completion fish | source",
      [&](Output& output) {
        print_script(arguments.shell, output);
        return kDone;
      },
      "An installed package has brought the scripts already.")
      ->add_option("SHELL", arguments.shell, utils::join(names, ", "))
      ->check(CLI::IsMember(names))
      ->option_text(" ")
      ->required();
  // For the scripts and the build, not for people: no help shows a command of the group "".
  add_command(app, arguments, "complete", "Print what may come next on a command line", "",
              [&](Output&) -> int { run_complete(app, arguments.words); })
      ->group("")
      ->add_option("WORD", arguments.words);
  add_command(app, arguments, "generate", "Write what an installation has beside the program", "",
              [&](Output&) {
                write_companions(app, arguments.folder);
                return kDone;
              })
      ->group("")
      ->add_option("DIR", arguments.folder)
      ->required();
}

// The command that was probably meant; "" when none is near. Two edits: more would suggest `sync` for `show`.
std::string nearest_command(const CLI::App& app, const std::string& word) {
  std::string nearest;
  std::size_t least = 3;
  if (word.size() > kLongestName) return nearest;
  for (const CLI::App* command : commands(app)) {
    const std::size_t distance = utils::edit_distance(word, command->get_name());
    if (distance >= std::min(least, word.size())) continue;
    least = distance;
    nearest = command->get_name();
  }
  return nearest;
}

// What is wrong with the arguments, and what to type instead. Where the first word is no command, the parser
// only says that it did not expect it; the word is what the user mistyped, so it goes into the message.
std::string usage_message(const CLI::App& app, const CLI::ParseError& error) {
  const auto chosen = app.get_subcommands();
  const std::string command = chosen.empty() ? "" : " " + chosen.front()->get_name();
  const std::string help = "; see: ossilar" + command + " --help";
  const auto left = app.remaining(true);
  if (left.empty()) return error.what() + help;
  const std::string near = chosen.empty() ? nearest_command(app, left.front()) : "";
  return "unknown command or argument '" + left.front() + "'" +
         (near.empty() ? "" : "; did you mean: ossilar " + near) + help;
}

// Prints a failure for people (standard error) and, in JSON mode, for programs.
int fail(Output& output, int code, const std::string& message) {
  Output::diagnostic(message);
  output.document(Map{{"error", message}, {"exit_code", code}});
  return code;
}

int tell_version(Output& output) {
  print_version(output);
  return kDone;
}

int run_command(const Arguments& arguments, Output& output) {
  try {
    return arguments.command ? arguments.command(output) : run_without_command(arguments.place, output);
  } catch (const utils::ConfigError& error) {  // first, as it is a std::exception too
    return fail(output, kUsage, error.what());
  } catch (const std::exception& error) {
    return fail(output, kFailed, error.what());
  }
}

}  // namespace

int run(int argc, char** argv) {
  Arguments arguments;
  CLI::App app("A wiki about this repository that agents write and that stays true.", "ossilar");
  app.footer(
      "Exit codes: 0 done, 1 refused or found something, 2 wrong usage or configuration, 3 a failure.");
  app.require_subcommand(0, 1);
  // Global options may follow the command: ossilar plan --json. Set before the commands are added, as a
  // command copies the setting when it is made.
  app.fallthrough();
  add_globals(app, arguments);
  add_init_command(app, arguments);
  for (const operations::Operation& operation : operations::operations()) {
    if (!operation.command.empty()) add_operation(app, arguments, operation);
  }
  add_mcp_command(app, arguments);
  add_serve_command(app, arguments);
  add_export_command(app, arguments);
  add_store_command(app, arguments);
  add_doctor_command(app, arguments);
  add_own_commands(app, arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& asked) {
    return app.exit(asked);  // --help
  } catch (const CLI::ParseError& error) {
    Output output(arguments.json, arguments.color);
    return fail(output, kUsage, usage_message(app, error));
  }
  // Before the command runs: it logs, and run_mcp() gets the sink as a value.
  arguments.log = stderr_sink();
  utils::set_log_sink(arguments.log);
  Output output(arguments.json, arguments.color);
  const int code = arguments.version ? tell_version(output) : run_command(arguments, output);
  // A command that did its work but could not print it (a full disk behind a redirection) must not end with
  // 0.
  if (output.flush()) return code;
  Output::diagnostic("cannot write to standard output");
  return kFailed;
}

}  // namespace ossilar::cli
