// One sink for the process, behind a mutex that is held only to copy a pointer to it. The sink itself runs
// unlocked: a slow one then delays only the thread that logs, and it may log or set another sink without a
// deadlock. The shared pointer keeps it alive for the threads that are in it when it is replaced.

#include "ossilar/utils/logging.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <typeinfo>
#include <utility>

#include "ossilar/utils/error.h"

namespace ossilar::utils {
namespace {

// Longer chains are cut: nobody reads so far, and it bounds the recursion, also for a circle of causes.
constexpr std::size_t kMaxCauses = 32;

// The type as it is written in the source, or `name` where that fails. The result comes from malloc().
std::string demangled(const char* name) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> text(abi::__cxa_demangle(name, nullptr, nullptr, &status),
                                                         &std::free);
  return status == 0 ? text.get() : name;
}

Cause cause_of(const std::exception& error) {
  Cause cause{demangled(typeid(error).name()), error.what(), ""};
  if (const auto* ours = dynamic_cast<const Error*>(&error)) {
    cause.place = std::string(ours->place().file) + ":" + std::to_string(ours->place().line);
  }
  return cause;
}

void append_causes(const std::exception& error, std::vector<Cause>& trace) {
  trace.push_back(cause_of(error));
  if (trace.size() >= kMaxCauses) return;
  try {
    std::rethrow_if_nested(error);
  } catch (const std::exception& nested) {
    append_causes(nested, trace);
  } catch (...) {
    trace.push_back({"unknown", "not derived from std::exception", ""});
  }
}

struct SinkHolder {
  std::mutex mutex;
  std::shared_ptr<const LogSink> sink;
};

// Made by its first use, as globals of other files may log before those of this file are initialised.
SinkHolder& holder() {
  static SinkHolder instance;
  return instance;
}

void emit(const LogRecord& record) {
  std::shared_ptr<const LogSink> sink;
  {
    const std::lock_guard lock(holder().mutex);
    sink = holder().sink;
  }
  if (sink && *sink) (*sink)(record);
}

}  // namespace

Failure describe_failure(const std::exception& error) {
  std::vector<Cause> trace;
  append_causes(error, trace);
  Failure failure{trace.front().type, trace.front().message, {}};
  failure.trace = std::move(trace);
  return failure;
}

std::string LogRecord::message() const {
  std::string out;
  std::size_t at = 0;
  for (const std::string& argument : arguments) {
    const std::size_t mark = text.find("%s", at);
    if (mark == std::string::npos) break;
    out += text.substr(at, mark - at) + argument;
    at = mark + 2;
  }
  return out + text.substr(at);
}

void set_log_sink(LogSink sink) {
  const std::lock_guard lock(holder().mutex);
  holder().sink = std::make_shared<const LogSink>(std::move(sink));
}

void Logger::info(std::string_view text, std::vector<std::string> arguments) const {
  emit({LogLevel::info, name_, std::string(text), std::move(arguments), std::nullopt});
}

void Logger::warning(std::string_view text, std::vector<std::string> arguments) const {
  emit({LogLevel::warning, name_, std::string(text), std::move(arguments), std::nullopt});
}

void Logger::warning(std::string_view text, const std::exception& error) const {
  emit({LogLevel::warning, name_, std::string(text), {}, describe_failure(error)});
}

}  // namespace ossilar::utils
