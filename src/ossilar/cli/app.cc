#include "ossilar/cli/app.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ossilar/cli/client_setup.h"
#include "ossilar/cli/commands.h"
#include "ossilar/cli/log_sink.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/text.h"

namespace ossilar::cli {
namespace {

using Command = std::function<int(Output&)>;

struct Arguments {
  Place place;
  bool json = false;
  ColorChoice color = ColorChoice::automatic;
  std::string page_id;
  std::vector<std::string> clients;
  SaveArguments save;
  ShowArguments show;
  workers::wiki::SearchRequest search;
  bool fix = false;
  utils::LogSink log;
  Command command;
};

CLI::App* add_command(CLI::App& app, Arguments& arguments, const std::string& name, const std::string& does,
                      const std::string& example, Command command) {
  CLI::App* added = app.add_subcommand(name, does);
  added->footer("Example:\n  " + example);
  added->callback([&arguments, command = std::move(command)] { arguments.command = command; });
  return added;
}

void add_globals(CLI::App& app, Arguments& arguments) {
  static const std::map<std::string, ColorChoice> kColors{
      {"auto", ColorChoice::automatic}, {"always", ColorChoice::always}, {"never", ColorChoice::never}};
  app.set_version_flag("--version", "ossilar " OSSILAR_VERSION);
  app.add_option("--repo", arguments.place.repo,
                 "The repository, or a folder in it (default: the current folder)")
      ->type_name("DIR");
  app.add_flag("--json", arguments.json, "Print exactly one JSON document");
  app.add_option_function<std::string>(
         "--color", [&arguments](const std::string& when) { arguments.color = kColors.at(when); },
         "auto, always or never; NO_COLOR is respected")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->type_name("WHEN")
      ->option_text("WHEN");
}

void add_init_command(CLI::App& app, Arguments& arguments) {
  auto* init = add_command(
      app, arguments, "init", "Set a wiki up here: its files, the index of the source, committed pages",
      "ossilar init\n  ossilar init --client claude-code --client vscode",
      [&](Output& output) { return run_init(arguments.place, arguments.clients, output); });
  init->add_option(
          "--client", arguments.clients,
          "Set an agent's client up to run ossilar here, once for each: " + utils::join(client_names(), ", "))
      ->check(CLI::IsMember(client_names()))
      ->allow_extra_args(false)
      ->type_name("NAME")
      ->option_text("NAME");
}

void add_reading_commands(CLI::App& app, Arguments& arguments) {
  add_command(app, arguments, "plan", "List every page of the plan and its state", "ossilar plan",
              [&](Output& output) { return run_plan(arguments.place, output); });
  auto* context = add_command(
      app, arguments, "context", "Print what the author of a page needs to know", "ossilar context overview",
      [&](Output& output) { return run_context(arguments.place, arguments.page_id, output); });
  context->add_option("PAGE", arguments.page_id, "The page's id, as in `ossilar plan`")->required();
  auto* show =
      add_command(app, arguments, "show", "Print a stored page", "ossilar show overview --section Purpose",
                  [&](Output& output) { return run_show(arguments.place, arguments.show, output); });
  show->add_option("PAGE", arguments.show.page_id, "The page's id")->required();
  show->add_option("--section", arguments.show.section, "One ## section")->type_name("HEADING");
  show->add_flag("--authored", arguments.show.authored, "The author's text alone, as a save takes it");
  auto* search = add_command(
      app, arguments, "search", "Find the passages of the wiki that answer a question",
      "ossilar search \"who holds the write lock\" -n 3\n  ossilar search parseHTTPHeader --path src/net",
      [&](Output& output) { return run_search(arguments.place, arguments.search, output); });
  search
      ->add_option("QUERY", arguments.search.query, "Words, a question, or names of the code in any spelling")
      ->required();
  search->add_option("-n", arguments.search.limit, "How many passages at most, 1 to 50 (default: 8)")
      ->type_name("N");
  search
      ->add_option("--type", arguments.search.page_type,
                   "Only pages of this type: overview, architecture, ...")
      ->type_name("TYPE");
  search->add_option("--path", arguments.search.path, "Only passages about this source file or folder")
      ->type_name("PATH");
  add_command(app, arguments, "status", "Show branch, pages by state, and the last write", "ossilar status",
              [&](Output& output) { return run_status(arguments.place, output); });
}

void add_check_command(CLI::App& app, Arguments& arguments) {
  auto* check = add_command(
      app, arguments, "check",
      "Find what is wrong: stale pages, citations that do not hold, what crashes, hands and git left behind",
      "ossilar check\n  ossilar check --fix\n\n"
      "--fix takes page files as they stand and changes none, makes anew what is derived from them, forgets "
      "pages\n"
      "whose file is gone (their text goes to .ossilar/replaced), and removes leftovers of writes.\n"
      "Exit code 1 when something is found, or left after --fix.",
      [&](Output& output) { return run_check(arguments.place, arguments.fix, output); });
  check->add_flag("--fix", arguments.fix, "Set right what needs no author");
}

void add_mcp_command(CLI::App& app, Arguments& arguments) {
  add_command(app, arguments, "mcp",
              "Serve an agent's session: the Model Context Protocol on standard input and output",
              "ossilar --repo . mcp", [&](Output&) { return run_mcp(arguments.place, arguments.log); });
}

void add_save_command(CLI::App& app, Arguments& arguments) {
  auto* save =
      add_command(app, arguments, "save", "Check a page and store it",
                  "ossilar save overview overview.md\n  ossilar save overview --section Purpose < purpose.md",
                  [&](Output& output) { return run_save(arguments.place, arguments.save, output); });
  save->add_option("PAGE", arguments.save.page_id, "The page's id, as in `ossilar plan`")->required();
  save->add_option("FILE", arguments.save.file, "The page's Markdown (default: standard input)");
  save->add_option("--section", arguments.save.section, "Replace this ## section only")->type_name("HEADING");
  save->add_option("--title", arguments.save.title, "Rename the page")->type_name("TITLE");
  save->add_flag("--dry-run", arguments.save.dry_run, "Answer, and write nothing");
}

// A first word that is no command is what went wrong, whatever the parser says is missing.
std::string usage_message(const CLI::App& app, const CLI::ParseError& error) {
  std::string message = error.what();
  if (const auto left = app.remaining(true); !left.empty()) {
    message = "unknown command or argument '" + left.front() + "'";
  } else if (error.get_name() == "RequiredError" && app.get_subcommands().empty()) {
    message = "no command given";
  }
  return message + "; see: ossilar --help";
}

int fail(Output& output, int code, const std::string& message) {
  Output::diagnostic(message);
  output.document(Map{{"error", message}, {"exit_code", code}});
  return code;
}

int run_command(const Arguments& arguments, Output& output) {
  try {
    return arguments.command(output);
  } catch (const utils::ConfigError& error) {
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
  app.require_subcommand(1);
  app.fallthrough();
  add_globals(app, arguments);
  add_init_command(app, arguments);
  add_reading_commands(app, arguments);
  add_save_command(app, arguments);
  add_check_command(app, arguments);
  add_mcp_command(app, arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& asked) {
    return app.exit(asked);  // --help and --version
  } catch (const CLI::ParseError& error) {
    Output output(arguments.json, arguments.color);
    return fail(output, kUsage, usage_message(app, error));
  }
  arguments.log = stderr_sink();
  utils::set_log_sink(arguments.log);
  Output output(arguments.json, arguments.color);
  const int code = run_command(arguments, output);
  if (output.flush()) return code;
  Output::diagnostic("cannot write to standard output");
  return kFailed;
}

}  // namespace ossilar::cli
