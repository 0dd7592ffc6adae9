// What the program tells of itself. app.cc calls this, on the main thread, and hands over its parser, from
// which all is made.
#pragma once

#include <CLI/CLI.hpp>
#include <filesystem>
#include <string>
#include <vector>

#include "ossilar/cli/output.h"

namespace ossilar::cli {

// Prints the version: a line, or with --json version_document().
void print_version(Output& output);

// Prints the script that makes this shell, one of shells(), complete the command line.
void print_script(const std::string& shell, Output& output);

// Prints what may come next on a command line (manuals/completion.h), and nothing when that fails. Ends the
// process.
[[noreturn]] void run_complete(const CLI::App& app, const std::vector<std::string>& words);

// Writes manual pages, completions and the schema of the configuration below `folder`, where an installation
// has them below its prefix. Throws utils::IoError, std::filesystem::filesystem_error.
void write_companions(const CLI::App& app, const std::filesystem::path& folder);

}  // namespace ossilar::cli
