// Log records and named loggers. A record keeps its template apart from its arguments, so that a receiver can
// group records by template; an attached failure keeps type, message and trace apart, too.
//
// The rooms from source to mcp log through a Logger of their own. The command sends the records to standard
// error (cli/log_sink.cc), a session to its client as well (mcp/server.cc).
//
// Thread-safety: every function and every const member may be called from any thread. What a sink throws
// reaches the code that logged.
#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::utils {

enum class LogLevel { debug, info, warning, error };

// One exception in a chain of causes.
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

// Describes `error` and the exceptions nested in it (std::throw_with_nested), at most 32 in all.
Failure describe_failure(const std::exception& error);

struct LogRecord {
  LogLevel level = LogLevel::info;
  std::string logger;                  // the name of the logger
  std::string text;                    // the template, with "%s" for each argument
  std::vector<std::string> arguments;  // in the order of the template's "%s"
  std::optional<Failure> failure;

  // The template with its arguments put in. A "%s" without an argument stays; an argument without a "%s" is
  // left out; a "%s" in an argument is text.
  std::string message() const;
};

using LogSink = std::function<void(const LogRecord&)>;

// Sends the records of all loggers to `sink` from now on. An empty sink drops them, as does a program that
// has set none. The sink may be called from several threads at once, and the former sink may still be at
// work, or be called once more by a thread that logs at this moment, after this returned.
void set_log_sink(LogSink sink);

class Logger {
 public:
  // `name` tells where records come from, such as "ossilar.store".
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
