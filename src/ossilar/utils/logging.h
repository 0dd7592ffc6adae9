// Log records and named loggers. A record keeps its template and its arguments apart, so that whoever
// receives it can group by template; a failure attached to it keeps type, message and trace apart too.
//
// Thread-safety: every function and member may be called from any thread.
#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::utils {

enum class LogLevel { debug, info, warning, error };

// One exception of a chain of causes.
struct Cause {
  std::string type;     // demangled, such as "ossilar::utils::IoError"
  std::string message;  // its what()
  std::string place;    // "file:line" of the throw where the exception records it, else ""
};

struct Failure {
  std::string type;
  std::string message;
  std::vector<Cause> trace;  // the failure itself first, then each exception nested in the one before
};

// Describes `error` with the exceptions nested in it (std::throw_with_nested), to at most 32 levels.
Failure describe_failure(const std::exception& error);

struct LogRecord {
  LogLevel level = LogLevel::info;
  std::string logger;                  // the name of the logger
  std::string text;                    // the template, with "%s" for each argument
  std::vector<std::string> arguments;  // in the order of the template's "%s"
  std::optional<Failure> failure;

  // The template with its arguments put in.
  std::string message() const;
};

using LogSink = std::function<void(const LogRecord&)>;

// Where the records of all loggers go from now on; an empty sink drops them, which is how a program starts.
// The sink may be called from several threads at once.
void set_log_sink(LogSink sink);

class Logger {
 public:
  explicit Logger(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  void info(std::string_view text, std::vector<std::string> arguments = {}) const;
  void warning(std::string_view text, std::vector<std::string> arguments = {}) const;
  // As above, with a failure attached.
  void warning(std::string_view text, const std::exception& error) const;

 private:
  std::string name_;
};

}  // namespace ossilar::utils
