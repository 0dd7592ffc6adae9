// The command line as its parser knows it, read back: commands, options and what values they take. Manual
// pages (man_page.cc) and completions (completion.cc) are made from this and nothing else, so they say what
// `--help` says.
//
// Thread-safety: functions without state; any thread may call while nobody changes the parser. None fails.
// Lifetime: what is given points into the parser.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::cli {

// Commands that help shows, in its order. Hidden ones are for shells and the build.
std::vector<const CLI::App*> commands(const CLI::App& app);
// The command of this name, or null.
const CLI::App* command_named(const CLI::App& app, std::string_view name);

// Options that help shows, in its order, and positional arguments.
std::vector<const CLI::Option*> options(const CLI::App& app);
std::vector<const CLI::Option*> positionals(const CLI::App& app);

// As they are typed, the long one last: "-h", "--help".
std::vector<std::string> names(const CLI::Option& option);
bool takes_value(const CLI::Option& option);
// How help names the value: "DIR", "PAGE"; "" for a flag.
std::string value_name(const CLI::Option& option);
// The words that fit, where there are only a few.
std::vector<std::string> choices(const CLI::Option& option);

// What add_command() (app.cc) put below the options.
struct Footer {
  std::string example;            // command lines, one a line
  std::vector<std::string> more;  // paragraphs
};
Footer footer(const CLI::App& app);

}  // namespace ossilar::cli
