// The only file that knows spdlog. The rooms log through utils/logging.h instead, so that a session can send
// the same records to its client as well (mcp/server.cc).
#include "ossilar/cli/log_sink.h"

#include <spdlog/cfg/env.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <string>

#include "ossilar/utils/logging.h"
#include "ossilar/utils/text.h"

namespace ossilar::cli {
namespace {

spdlog::level::level_enum level_of(utils::LogLevel level) {
  switch (level) {
    case utils::LogLevel::debug:
      return spdlog::level::debug;
    case utils::LogLevel::info:
      return spdlog::level::info;
    case utils::LogLevel::warning:
      return spdlog::level::warn;
    case utils::LogLevel::error:
      return spdlog::level::err;
  }
  return spdlog::level::info;
}

// The record on one line: logger, message, and the failure with its chain of causes. One line whatever the
// texts hold: a message may name a file with a line feed or an escape sequence in it.
std::string line_of(const utils::LogRecord& record) {
  std::string line = record.logger + ": " + record.message();
  if (!record.failure) return utils::printable_line(line);
  const char* separator = ": ";
  for (const utils::Cause& cause : record.failure->trace) {
    line += separator + cause.type + ": " + cause.message;
    if (!cause.place.empty()) line += " (" + cause.place + ")";
    separator = "; caused by ";
  }
  return utils::printable_line(line);
}

}  // namespace

utils::LogSink stderr_sink() {
  const auto logger = spdlog::stderr_color_mt("ossilar");  // _mt: a session logs from many threads
  logger->set_pattern("%n: %^%l%$: %v");
  logger->set_level(spdlog::level::warn);
  spdlog::set_default_logger(logger);  // spdlog's own writes to standard output, which is for answers
  spdlog::cfg::load_env_levels();      // after set_level(), which it overrides
  return [logger](const utils::LogRecord& record) {
    logger->log(level_of(record.level), "{}", line_of(record));
  };
}

}  // namespace ossilar::cli
