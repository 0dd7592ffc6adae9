// Where the log records of the command go. app.cc makes the sink, on the main thread; the sink itself may be
// called from any thread. A record that cannot be written is lost.
#pragma once

#include "ossilar/utils/logging.h"

namespace ossilar::cli {

// A sink that sends records to standard error through spdlog: warnings and errors, or from the level that the
// environment variable SPDLOG_LEVEL names (SPDLOG_LEVEL=info). To be called once: a second call throws
// spdlog::spdlog_ex, as the logger's name is taken.
utils::LogSink stderr_sink();

}  // namespace ossilar::cli
