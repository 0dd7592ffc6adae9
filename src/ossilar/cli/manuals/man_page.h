// Manual pages, in the man(7) macros. The build writes them to files (`ossilar generate`, cli/self.cc).
//
// Thread-safety: functions without state, any thread may call. None fails.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "ossilar/utils/json.h"

namespace ossilar::cli {

// ossilar(1), which lists the commands.
std::string man_page(const CLI::App& app);
// The page of one of its commands, ossilar-NAME(1).
std::string man_page(const CLI::App& app, const CLI::App& command);
// ossilar.toml(5), from the JSON Schema of the file.
std::string config_man_page(const Map& schema);

}  // namespace ossilar::cli
