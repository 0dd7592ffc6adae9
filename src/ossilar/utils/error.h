// The failures that this program raises itself. Each carries the place of its throw, which a log record shows
// with the failure; the message says what failed, on what, and what to do about it.
#pragma once

#include <stdexcept>
#include <string>

namespace ossilar::utils {

// Where in the source a failure was raised. (std::source_location needs a newer Clang than Debian 12 ships.)
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

// A system call that failed: what was attempted on what, and the system's own words for it.
class IoError : public Error {
 public:
  // `what` reads like "cannot write /repo/wiki/index.md"; `error` is an errno value.
  IoError(const std::string& what, int error, Place place = Place::current());
  int error() const { return error_; }

 private:
  int error_;
};

// Wrong configuration or wrong usage: something that the user wrote and can correct.
class ConfigError : public Error {
 public:
  explicit ConfigError(const std::string& message, Place place = Place::current()) : Error(message, place) {}
};

}  // namespace ossilar::utils
