#pragma once

namespace ossilar::cli {

// Sends the log records of all rooms to standard error through spdlog: warnings and errors, or what the
// environment variable SPDLOG_LEVEL names (as in SPDLOG_LEVEL=info).
void log_to_stderr();

}  // namespace ossilar::cli
