#pragma once

#include "ossilar/utils/logging.h"

namespace ossilar::cli {

// A sink for the log records of all rooms that sends them to standard error through spdlog: warnings and
// errors, or what the environment variable SPDLOG_LEVEL names (as in SPDLOG_LEVEL=info). To be called once.
utils::LogSink stderr_sink();

}  // namespace ossilar::cli
