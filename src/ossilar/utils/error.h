// The exceptions that this program throws itself. Each carries the place of its throw, which a log record
// shows (logging.h); the message says what failed, on what, and where possible what to do about it.
//
// Every room throws them. The command turns them into an exit code and a line on standard error (cli/app.cc),
// a session into an answer with an error (mcp/session.cc).
//
// Thread-safety: as of any value; an exception may be handed to another thread.
#pragma once

#include <stdexcept>
#include <string>

namespace ossilar::utils {

// Where in the source an exception was thrown. current() is meant as a default argument: the builtins then
// name the line of the caller, so no throw has to. (std::source_location needs a newer Clang than Debian 12
// ships.)
struct Place {
  const char* file = "";
  int line = 0;
  static constexpr Place current(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    return {file, line};
  }
};

class Error : public std::runtime_error {
 public:
  explicit Error(const std::string& message, Place place = Place::current())
      : std::runtime_error(message), place_(place) {}
  const Place& place() const { return place_; }

 private:
  Place place_;
};

// A system call failed. The message says what was attempted on what, followed by the system's text for the
// errno value.
class IoError : public Error {
 public:
  // `what` reads like "cannot write /repo/wiki/index.md"; `error` is an errno value.
  IoError(const std::string& what, int error, Place place = Place::current());
  int error() const { return error_; }

 private:
  int error_;
};

// Wrong configuration or wrong usage: something that the user wrote and can correct. The command ends with
// the exit code for usage errors.
class ConfigError : public Error {
 public:
  explicit ConfigError(const std::string& message, Place place = Place::current()) : Error(message, place) {}
};

}  // namespace ossilar::utils
